// The files behind service classification: the name filter and the VCI table (text, one entry
// a line) and the DHCP server's binary lease file. This file owns the name-filter and VCI lists;
// the lease table belongs to dpsvr_classify.cpp and is filled through dpsvr_add_src_lease.
#include <arpa/inet.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ctrl/dp_trace.h"
#include "main/dputl.h"
#include "platform/kutl/kutl.h"
#include "server/dpsvr.h"
#include "server/dpsvr_internal.h"

namespace {

constexpr const char* kNameFilterFile = "/etc/dns_prefix.conf";
constexpr const char* kVciFile = "/etc/dhcp_condpool.conf";
constexpr const char* kLeaseFile = "/configs/udhcpd.leases2";
constexpr const char* kLeaseFileTag = "[LeaseFile_v2]";
constexpr size_t kLeaseFileTagLen = 14;

// Line sizes of the two text files, with the terminator.
constexpr size_t kNameFilterLine = 256;
constexpr size_t kVciLine = 1024;

// A list in file order: new entries go to the tail.
template <typename T>
struct file_list {
    T* head = nullptr;
    T* tail = nullptr;
};

file_list<name_filter> filters;
file_list<vci_entry> vcis;

template <typename T>
void append(file_list<T>& list, T* entry) {
    if (list.tail != nullptr) {
        list.tail->next = entry;
    } else {
        list.head = entry;
    }
    list.tail = entry;
}

template <typename T>
uint32_t free_list(file_list<T>& list) {
    uint32_t count = 0;
    while (list.head != nullptr) {
        T* next = list.head->next;
        std::free(list.head);
        list.head = next;
        ++count;
    }
    list.tail = nullptr;
    return count;
}

// ---- text lines -------------------------------------------------------------------------------

// Splits a line into its first n tokens. A blank line is passed over quietly; a line with binary
// data or too few tokens is skipped with a trace. An over-long line keeps its tokens only when
// the last one ends inside the kept part: a token running into the cut may be truncated, and a
// truncated pattern or service text would classify wrongly.
bool split_dputl_line(const char* file, dputl_line& line, int n, char** fields) {
    if (line.has_nul) {
        DPSERV_TRACE(DP_DETAIL, "%s line %u skipped: binary data\n", file, line.no);
        return false;
    }
    line.text[std::strcspn(line.text, "\r\n")] = '\0'; // a CR ends the line's text as well
    if (line.text[std::strspn(line.text, " \t")] == '\0') return false;
    if (dputl_split_line(line.text, " \t", n, fields) != 1) {
        DPSERV_TRACE(DP_DETAIL, "%s line %u skipped: missing fields\n", file, line.no);
        return false;
    }
    if (dputl_token_cut(&line, fields[n - 1])) {
        DPSERV_TRACE(DP_DETAIL, "%s line %u skipped: longer than %zu characters\n", file, line.no,
                     line.cap - 1);
        return false;
    }
    return true;
}

using line_parser = int (*)(const char* file, dputl_line& line);

// Reads every line of a fixed file through parse; returns the sum of what parse returns.
int read_table_file(const char* fixed, size_t line_size, line_parser parse) {
    const kutl_path path = kutl_fixed_path(fixed);
    FILE* const f = std::fopen(path.s, "r");
    if (f == nullptr) return 0;
    dputl_line line;
    line.cap = line_size;
    line.no = 0;
    int count = 0;
    while (dputl_read_line(f, &line))
        count += parse(path.s, line);
    std::fclose(f);
    return count;
}

// ---- name filter ------------------------------------------------------------------------------

void lower_ascii(char* s) {
    for (; *s != '\0'; ++s) {
        if (*s >= 'A' && *s <= 'Z') *s = static_cast<char>(*s - 'A' + 'a');
    }
}

// "<pattern> <mode> <service>". 1 when an entry was added.
int add_name_filter_line(const char* file, dputl_line& line) {
    char* tok[3];
    if (!split_dputl_line(file, line, 3, tok)) return 0;
    auto* e = static_cast<name_filter*>(std::calloc(1, sizeof(name_filter)));
    if (e == nullptr) return 0;
    // The line is shorter than name, so the pattern always fits whole.
    std::snprintf(e->name, sizeof e->name, "%s", tok[0]);
    lower_ascii(e->name);
    e->matchMode = static_cast<uint32_t>(std::atoi(tok[1]));
    std::snprintf(e->service, sizeof e->service, "%s", tok[2]);
    e->mask = dpsvr_get_service_mask_by_name(e->service);
    append(filters, e);
    return 1;
}

// ---- VCI table --------------------------------------------------------------------------------

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Two digits a byte; an odd last digit and bytes past the 256th are dropped. A token with any
// other character is refused (-1): a vendor class read partly would match the wrong clients.
int parse_vci_hex(const char* hex, uint8_t* out, uint32_t* len) {
    for (const char* p = hex; *p != '\0'; ++p) {
        if (hex_value(*p) < 0) return -1;
    }
    size_t n = std::strlen(hex) / 2;
    if (n > sizeof(vci_entry::vci)) n = sizeof(vci_entry::vci);
    for (size_t i = 0; i < n; ++i)
        out[i] = static_cast<uint8_t>(hex_value(hex[2 * i]) << 4 | hex_value(hex[2 * i + 1]));
    *len = static_cast<uint32_t>(n);
    return 0;
}

// An IPv4 address as text and as a host-order number. False when it is not one.
bool parse_ipv4(const char* text, char* str, size_t str_size, uint32_t* addr) {
    in_addr a{};
    if (inet_pton(AF_INET, text, &a) != 1) return false;
    std::snprintf(str, str_size, "%s", text); // a valid dotted quad fits
    *addr = ntohl(a.s_addr);
    return true;
}

// "<vci hex> <start> <end> <service>". 1 when an entry was added.
int add_vci_line(const char* file, dputl_line& line) {
    char* tok[4];
    if (!split_dputl_line(file, line, 4, tok)) return 0;
    auto* e = static_cast<vci_entry*>(std::calloc(1, sizeof(vci_entry)));
    if (e == nullptr) return 0;
    const char* bad = nullptr;
    if (parse_vci_hex(tok[0], e->vci, &e->vciLen) != 0) {
        bad = "vci";
    } else if (!parse_ipv4(tok[1], e->startStr, sizeof e->startStr, &e->startAddr)) {
        bad = "start address";
    } else if (!parse_ipv4(tok[2], e->endStr, sizeof e->endStr, &e->endAddr)) {
        bad = "end address";
    }
    if (bad != nullptr) {
        DPSERV_TRACE(DP_DETAIL, "%s line %u skipped: bad %s\n", file, line.no, bad);
        std::free(e);
        return 0;
    }
    std::snprintf(e->service, sizeof e->service, "%s", tok[3]);
    e->mask = dpsvr_get_service_mask_by_name(e->service);
    append(vcis, e);
    return 1;
}

// ---- lease file -------------------------------------------------------------------------------

// The 20-byte header: the tag text, NUL-padded, then the record size in native byte order.
struct lease_file_header {
    char text[17]; // 16 bytes of the file and a terminator for the traces
    uint32_t size;
};

// 0, or the error code of the trace: 2 the header cannot be read, 3 it is not valid.
int read_lease_header(FILE* f, lease_file_header* h) {
    unsigned char raw[20] = {};
    const size_t got = std::fread(raw, 1, sizeof raw, f);
    std::memcpy(h->text, raw, 16);
    h->text[16] = '\0';
    std::memcpy(&h->size, raw + 16, sizeof h->size);
    if (got != sizeof raw) return 2;
    if (strnlen(h->text, 16) != kLeaseFileTagLen || std::strcmp(h->text, kLeaseFileTag) != 0)
        return 3;
    if (h->size < DPSVR_LEASE_RECORD_MIN) return 3;
    struct stat st;
    const bool held = fstat(fileno(f), &st) == 0 && st.st_size >= 20 &&
                      static_cast<uint64_t>(st.st_size) - 20 >= h->size;
    if (h->size > DPSVR_LEASE_RECORD_ANY && !held) return 3;
    return 0;
}

// Passes every whole record to dpsvr_add_src_lease; returns the leases stored. The buffer holds
// at least 128 bytes; those of a short record past its end stay zero from the allocation.
int read_lease_records(FILE* f, uint32_t size, unsigned char* buffer) {
    int stored = 0;
    while (std::fread(buffer, 1, size, f) == size) {
        dpsvr_lease_record record;
        std::memcpy(&record, buffer, sizeof record);
        if (dpsvr_add_src_lease(&record) > 0) ++stored;
    }
    return stored;
}

} // namespace

// ---- public -----------------------------------------------------------------------------------

const name_filter* dpsvr_name_filter_head() {
    return filters.head;
}

const vci_entry* dpsvr_vci_head() {
    return vcis.head;
}

uint32_t dpsvr_purge_name_filter_db() {
    const uint32_t count = free_list(filters);
    dpsvr_index_name_filter();
    DPSERV_TRACE(DP_WARN, "%u name filter are purged\n", count);
    return count;
}

int dpsvr_load_name_filter_db() {
    dpsvr_purge_name_filter_db();
    const int loaded = read_table_file(kNameFilterFile, kNameFilterLine, add_name_filter_line);
    dpsvr_index_name_filter();
    return loaded;
}

int dpsvr_load_vci_db() {
    free_list(vcis);
    return read_table_file(kVciFile, kVciLine, add_vci_line);
}

int dpsvr_load_lease_file() {
    // 1. The table is rebuilt from the file alone; no file, no leases.
    dpsvr_purge_src_leases();
    FILE* const f = std::fopen(kutl_fixed_path(kLeaseFile).s, "rb");
    if (f == nullptr) return 0;
    // 2. The header must name the format and a record size we can take.
    lease_file_header h;
    if (const int code = read_lease_header(f, &h); code != 0) {
        DPSERV_TRACE(DP_ERROR, "parse DHCP Leaes file error %d, header string %s, lease size %d.\n",
                     code, h.text, static_cast<int>(h.size));
        std::fclose(f);
        return -code;
    }
    // 3. One buffer for every record, never smaller than the 128 bytes a record is read as.
    const size_t buf_size =
        h.size > sizeof(dpsvr_lease_record) ? h.size : sizeof(dpsvr_lease_record);
    auto* record = static_cast<unsigned char*>(std::calloc(1, buf_size));
    if (record == nullptr) {
        DPSERV_TRACE(DP_ERROR, "calloc memory error %d.\n", static_cast<int>(h.size));
        std::fclose(f);
        return -4;
    }
    // 4. Whole records until a short read.
    const int stored = read_lease_records(f, h.size, record);
    std::free(record);
    std::fclose(f);
    return stored;
}

int dpsvr_reload_vci_and_leases() {
    dpsvr_load_vci_db();
    return dpsvr_load_lease_file();
}
