// Test tool: the daemon's side of the module message channel (module 44), for the system tests
// that run the module peers. Binds <DNSPROXY_ROOT>/var/run/csmsg/44, runs one operation and
// prints its outcome on standard output; the io module's traces and hex dumps go to standard
// error.
//
//     module_channel request <type> <size>        registration-state request
//     module_channel status up|down               service status indication
//     module_channel query-response <aaaa> <name> <result> <ttl> <ipstrs>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ctrl/dp_trace.h"
#include "io/dpio.h"

namespace {

int num(const char* text) {
    return static_cast<int>(std::strtol(text, nullptr, 0));
}

std::string hex(const uint8_t* data, uint32_t len) {
    std::string out;
    char b[3];
    for (uint32_t i = 0; i < len; ++i) {
        std::snprintf(b, sizeof b, "%02x", data[i]);
        out += b;
    }
    return out;
}

int run(int argc, char** argv) {
    const std::string op = argv[1];
    if (op == "request" && argc == 4) {
        const int size = num(argv[3]);
        std::vector<uint8_t> reply(size > 0 ? static_cast<size_t>(size) : 1, 0);
        const int ret = dpio_request_registration_state(static_cast<uint32_t>(num(argv[2])),
                                                        reply.data(), size);
        std::printf("ret=%d reply=%s\n", ret,
                    ret == 0 ? hex(reply.data(), static_cast<uint32_t>(reply.size())).c_str() : "");
        return 0;
    }
    if (op == "status" && argc == 3) {
        std::printf("ret=%d\n", dpio_send_service_status(std::strcmp(argv[2], "up") == 0));
        return 0;
    }
    if (op == "query-response" && argc == 7) {
        dpio_send_csmsg_query_response(static_cast<uint32_t>(num(argv[2])), argv[3], num(argv[4]),
                                       num(argv[5]), argv[6]);
        std::printf("done\n");
        return 0;
    }
    std::fprintf(stderr, "module_channel: unknown operation or wrong arguments\n");
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: module_channel <operation> <arguments...>\n");
        return 2;
    }
    dp_debug_tbl.timestamp = 0;
    dp_debug_tbl.modules[DP_MOD_IO].level_mask = DP_ERROR | DP_WARN | DP_DETAIL | DP_IO;
    if (dpio_init_module_interface() != 0) return 1;
    const int rc = run(argc, argv);
    std::fflush(stdout);
    dpio_close_module_interface();
    return rc;
}
