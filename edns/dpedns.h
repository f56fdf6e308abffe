// EDNS handling: inspection and validation of OPT records, the payload checks, and the
// client-MAC option (0xFE31) inserted into queries and stripped from answers.
#pragma once

#include <cstdint>

#include "endec/dpendec.h"

inline constexpr uint16_t DPEDNS_TYPE_OPT = 41;

// The first OPT record of the additional section: 0 and its index entry, or -1 (none, no
// additional records, or a malformed record).
int is_edns_present(const uint8_t* msg, uint16_t len, const msginf* info, rrinf* opt);

// Whether a query may go to a server accepting udpMaxPayload bytes: 0 yes, -1 no. A query that
// advertises payload 0 gets the server's value written into its OPT record.
int dpedns_check_packet_payload(uint8_t* msg, uint16_t len, uint16_t udpMaxPayload);
