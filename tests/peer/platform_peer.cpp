// platform_peer: a bus service built on the platform layer alone, for the system tests of the bus
// library, the JSON command service, the CLI table and kiv_cli. It owns "orvik.kiv.dnsproxy"
// like the daemon, registers its interfaces, signal table and JSON names through the same calls,
// and writes one line per handler call on standard output so that the tests can see what arrived.
//
//   platform_peer [--no-cli]     --no-cli: do not subscribe to "kivMessage"
//
// SIGTERM ends the loop; the peer then removes its match rules, drops every registration and
// exits 0, so that the sanitizers see a clean shutdown.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "platform/kutl/kutl.h"
#include "platform/ombus/ombus.h"
#include "platform/rcsd/rcsd.h"
#include "platform/rjson/rjson.h"

namespace {

constexpr const char* kBusName = "orvik.kiv.dnsproxy";
constexpr const char* kApiItf = "orvik.kiv.dnsproxy.itf.api";
constexpr const char* kJsonApiItf = "orvik.kiv.dnsproxy.itf.json.api";
constexpr const char* kJsonMsgItf = "orvik.kiv.dnsproxy.itf.json.msg";
constexpr const char* kResponseItf = "orvik.kiv.rgwd.itf.msg";

unsigned signals_seen = 0;
unsigned calls_seen = 0;

void print_hex(const void* data, uint32_t len) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (uint32_t i = 0; i < len; ++i)
        std::printf("%02x", bytes[i]);
}

// ---- the binary method interface --------------------------------------------------------------

constexpr ombusMethodDesc kApiMethods[] = {
    {"ToggleEDNS", "u", "u"},
    {"LoadD2Acache", "", "u"},
    {"HandleQueryRequest", "ay", "u"},
    {"Forgotten", "", "u"}, // described, never answered
};

int on_api_dispatch(const void*, const char* method, ombusParcel* parcel) {
    ++calls_seen;
    std::printf("call %s\n", method);
    uint32_t reply = 0;
    if (std::strcmp(method, "ToggleEDNS") == 0) {
        uint32_t value = 0;
        if (ombusParcelReadU32(parcel, &value) != 0) return -1;
        reply = value + 1000;
    } else if (std::strcmp(method, "LoadD2Acache") == 0) {
        reply = 7;
    } else if (std::strcmp(method, "HandleQueryRequest") == 0) {
        const uint8_t* data = nullptr;
        uint32_t len = 0;
        if (ombusParcelReadBytes(parcel, &data, &len) != 0) return -1;
        // Answer with the request turned into a response signal, as the daemon publishes one.
        reply = static_cast<uint32_t>(
            ombusEmitSignal(ombusGetObjectPath(), kResponseItf, "dnsProxyResponse", data, len));
    } else if (std::strcmp(method, "Forgotten") == 0) {
        return 0;
    } else {
        ombusLogFatalReal("on_api_dispatch", "unknown message: %s\n", method);
        return -1;
    }
    ombusParcelSetAnswered(parcel);
    ombusParcelWriteU32(parcel, reply);
    return 0;
}

// ---- the JSON interface -----------------------------------------------------------------------

constexpr ombusMethodDesc kJsonApiMethods[] = {{"kiv_sync_invoke", "s", "us"}};

int on_json_api_dispatch(const void*, const char* method, ombusParcel* parcel) {
    const char* request = nullptr;
    if (std::strcmp(method, "kiv_sync_invoke") != 0 ||
        ombusParcelReadString(parcel, &request) != 0) {
        ombusLogFatalReal("on_json_api_dispatch", "unknown message: %s\n", method);
        return -1;
    }
    char result[RCSD_RESULT_SIZE];
    const int status = rcsd_kiv_sync_invoke(request, result, sizeof result);
    ombusParcelSetAnswered(parcel);
    ombusParcelWriteU32(parcel, static_cast<uint32_t>(status));
    ombusParcelWriteString(parcel, result);
    return 0;
}

constexpr rjson_key_desc kFeatureKeys[] = {
    {"force_register", 1, RJSON_VALUE_U32}, {"edns", 2, RJSON_VALUE_U32},
    {"intercept", 3, RJSON_VALUE_U32},      {"dslite", 4, RJSON_VALUE_U32},
    {"ifname", 5, RJSON_VALUE_TEXT},
};
constexpr rjson_object_desc kFeatures = rjson_object("dnsproxy.features", kFeatureKeys);

// Result text: the items as "code=value" (texts quoted), in document order.
int api_cfg_feature(const json_object* params, char* result, uint32_t size) {
    rjson_item_area area{};
    const int n = rjson_parse_json_object(params, &kFeatures, &area);
    if (n < 0) return -422;
    size_t used = 0;
    for (int i = 0; i < n && used < size; ++i) {
        const rjson_item& it = area.items[i];
        const char* text = it.code == 5 ? rjson_item_text(&area, &it) : nullptr;
        used += text != nullptr
                    ? std::snprintf(result + used, size - used, "%u=\"%s\" ", it.code, text)
                    : std::snprintf(result + used, size - used, "%u=%u ", it.code, it.value);
    }
    return n;
}

int msg_cfg_feature(const json_object* params) {
    char text[256];
    const int n = api_cfg_feature(params, text, sizeof text);
    std::printf("message features %d %s\n", n, n >= 0 ? text : "");
    return n;
}

// ---- the CLI ----------------------------------------------------------------------------------

int saved_out = -1;
int saved_err = -1;

int cli_view_statistic(int, const char* const*) {
    std::fprintf(stderr, "\npeer statistic\n");
    std::fprintf(stderr, "signals received : %u\n", signals_seen);
    std::fprintf(stderr, "calls received   : %u\n", calls_seen);
    return 0;
}

int cli_echo(int, const char* const* argv) {
    std::printf("echo [%s]\n", argv[0]);
    return 0;
}

// More than a pipe holds, so that the peer blocks until kiv_cli has read it.
int cli_view_bulk(int, const char* const*) {
    for (int i = 0; i < 4000; ++i)
        std::printf("bulk line %04d ..................................................\n", i);
    return 0;
}

int cli_dump_itf_list(int, const char* const*) {
    rjson_dump_registered_messages();
    rjson_dump_registered_methods();
    return 0;
}

const kutl_cli_cmd kCliTable[] = {
    {"view statistic", 0, {}, cli_view_statistic},
    {"view bulk", 0, {}, cli_view_bulk},
    {"echo", 1, {{KUTL_CLI_ARG_TEXT, nullptr}}, cli_echo},
    {"dump itf list", 0, {}, cli_dump_itf_list},
};

int msg_cli_cmd(const json_object* params) {
    const char* tty = rjson_get_text(params, "kiv.cli", "tty_name");
    const char* cmd = rjson_get_text(params, "kiv.cli", "cmd");
    std::printf("cli tty=%s cmd=%s\n", tty != nullptr ? tty : "NULL",
                cmd != nullptr ? cmd : "NULL");
    std::fflush(stdout);
    if (tty == nullptr || cmd == nullptr) return 0;
    const bool moved = kutl_redirect_printf(tty) >= 0;
    // The peer waits for kiv_cli, so that a view longer than a pipe tests kiv_cli's copying.
    if (moved) fcntl(STDOUT_FILENO, F_SETFL, fcntl(STDOUT_FILENO, F_GETFL) & ~O_NONBLOCK);
    if (kutl_process_cli_cmd(kCliTable, static_cast<int>(std::size(kCliTable)), cmd) != 0)
        std::fprintf(stderr, "\nkiv_cli dnsproxy view statistic\nkiv_cli dnsproxy echo <text>\n");
    if (moved) {
        std::fflush(stdout);
        std::fflush(stderr);
        dup2(saved_out, STDOUT_FILENO);
        dup2(saved_err, STDERR_FILENO);
    }
    std::printf("cli done moved=%d\n", moved ? 1 : 0);
    return 0;
}

const rjson_json_message kMessages[] = {
    {"kiv_msg_cli_cmd", msg_cli_cmd},
    {"dp_msg_cfg_dnsproxy_feature", msg_cfg_feature},
};
const rjson_json_method kMethods[] = {{"dp_api_cfg_dnsproxy_feature", api_cfg_feature}};

// ---- signals ----------------------------------------------------------------------------------

int on_signal(const char* interface, const char* member, const void* payload, uint32_t length) {
    ++signals_seen;
    std::printf("signal %s %s len=%u ", interface, member, length);
    if (payload == nullptr) {
        std::printf("payload=null\n");
    } else {
        std::printf("hex=");
        print_hex(payload, length);
        std::printf("\n");
    }
    return 0;
}

const ombusInterestedSignal kSignals[] = {
    {"orvik.dhcpd", "dhcpLeaseInfoUpdate", on_signal, 0},
    {"orvik.kiv.dnsproxy.itf.msg", "dpLoadD2Acache", on_signal, 1},
    {"orvik.kiv.dnsproxy.itf.msg", "dpLoadFirstIpWanNameForDnsFilter", on_signal, 2},
    {"orvik.kiv.dnsproxy.itf.json.msg", "kivMessage", rcsd_process_kiv_signal, 3},
};

void match_rule(const ombusInterestedSignal& row, char* out, size_t size) {
    std::snprintf(out, size, "type='signal',interface='%.63s',member='%.63s'", row.interface,
                  row.member);
}

int subscribed_rows(bool with_cli) {
    return static_cast<int>(std::size(kSignals)) - (with_cli ? 0 : 1);
}

int subscribe(bool with_cli) {
    char rule[256];
    for (int i = 0; i < subscribed_rows(with_cli); ++i) {
        match_rule(kSignals[i], rule, sizeof rule);
        if (ombusAddInterestedSignal(rule) != OMBUS_OK) return -1;
    }
    return ombusSetInteresetedSignals(kSignals, subscribed_rows(with_cli));
}

int unsubscribe(bool with_cli) {
    char rule[256];
    int removed = 0;
    for (int i = 0; i < subscribed_rows(with_cli); ++i) {
        match_rule(kSignals[i], rule, sizeof rule);
        if (ombusRemoveMatch(rule) == OMBUS_OK) ++removed;
    }
    return removed;
}

int register_all(bool with_cli) {
    if (rcsd_init(kBusName) != 0 || rcsd_register_json_api_interface(kJsonApiItf) != 0 ||
        rcsd_register_sync_method_handler(kJsonApiItf, RCSD_SYNC_METHOD,
                                          rjson_process_kiv_method) != 0 ||
        rcsd_register_message_handler(kJsonMsgItf, "kivMessage", rjson_process_kiv_message) != 0 ||
        rjson_init(kBusName) != 0 ||
        rjson_add_json_messages(kJsonMsgItf, kMessages, std::size(kMessages)) != 0 ||
        rjson_add_json_methods(kJsonApiItf, kMethods, std::size(kMethods)) != 0) {
        return -1;
    }
    if (ombusOwnName(kBusName) != OMBUS_OK ||
        ombusRegisterService(kApiItf, nullptr, on_api_dispatch, kApiMethods,
                             std::size(kApiMethods)) != OMBUS_OK ||
        ombusRegisterService(kJsonApiItf, nullptr, on_json_api_dispatch, kJsonApiMethods,
                             std::size(kJsonApiMethods)) != OMBUS_OK ||
        ombusDeclareEmittedSignal(kResponseItf, "dnsProxyResponse", "ay") != OMBUS_OK) {
        return -1;
    }
    return subscribe(with_cli);
}

void on_terminate(int) {
    ombusQuitMainLoop();
}

} // namespace

int main(int argc, char** argv) {
    const bool with_cli = !(argc > 1 && std::strcmp(argv[1], "--no-cli") == 0);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    saved_out = dup(STDOUT_FILENO);
    saved_err = dup(STDERR_FILENO);
    struct sigaction sa {};
    sa.sa_handler = on_terminate;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    if (register_all(with_cli) != 0) {
        std::fprintf(stderr, "platform_peer: registration failed, status %d\n",
                     ombus_get_status_value());
        return 1;
    }
    ombusMainLoop();
    std::printf("removed %d matches\n", unsubscribe(with_cli));
    ombusReset();
    rjson_done();
    rcsd_done();
    close(saved_out);
    close(saved_err);
    return 0;
}
