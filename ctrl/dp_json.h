// The JSON API: the messages and methods registered with the JSON command service.
#pragma once

#include "platform/rjson/rjson.h"

inline constexpr int DP_JSON_MESSAGES = 3;
inline constexpr int DP_JSON_METHODS = 2;

// The tables handed to rjson_add_json_messages / rjson_add_json_methods.
extern const rjson_json_message dp_json_messages[DP_JSON_MESSAGES];
extern const rjson_json_method dp_json_methods[DP_JSON_METHODS];
