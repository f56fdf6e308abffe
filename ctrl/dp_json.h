// The JSON API: the messages and methods registered with the JSON command service.
#pragma once

#include "platform/rjson/rjson.h"

inline constexpr int DP_JSON_MESSAGES = 3;
inline constexpr int DP_JSON_METHODS = 3;
// The result buffer of a JSON method call. The metrics object of eight full sets of 32 servers
// takes less than 200 KiB; a result that does not fit is refused, not cut.
inline constexpr uint32_t DP_JSON_RESULT_SIZE = 256 * 1024;

// The tables handed to rjson_add_json_messages / rjson_add_json_methods.
extern const rjson_json_message dp_json_messages[DP_JSON_MESSAGES];
extern const rjson_json_method dp_json_methods[DP_JSON_METHODS];
