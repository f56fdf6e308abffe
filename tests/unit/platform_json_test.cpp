#include <gtest/gtest.h>
#include <json-c/json.h>

#include <cstring>
#include <string>

#include "platform/rjson/rjson.h"

namespace {

// The daemon parses requests into a 128-byte item area: whatever the request, nothing is
// written past it, and a refused request leaves it alone.
TEST(JsonObjects, TheItemAreaIsFilledToItsEndOrLeftAlone) {
    // "dnsproxy.features" with a text key, and "many" with the keys k0..k16.
    std::string names[17], many;
    rjson_key_desc keys[21] = {{"force_register", 1, RJSON_VALUE_U32},
                               {"edns", 2, RJSON_VALUE_U32},
                               {"dslite", 4, RJSON_VALUE_U32},
                               {"ifname", 20, RJSON_VALUE_TEXT}};
    for (int i = 0; i < 17; ++i) {
        names[i] = "k" + std::to_string(i);
        keys[4 + i] = {names[i].c_str(), 1, RJSON_VALUE_U32};
        many += ", \"" + names[i] + "\": " + std::to_string(i);
    }
    const rjson_object_desc features{"dnsproxy.features", keys, 4}, kmany{"many", keys + 4, 17};
    rjson_item_area area, pattern;
    std::memset(&pattern, 0xAB, sizeof pattern);
    auto parse = [&](const std::string& text, const rjson_object_desc& desc) {
        json_object* params = json_tokener_parse(text.c_str());
        area = pattern;
        const int n = rjson_parse_json_object(params, &desc, &area);
        json_object_put(params);
        return n;
    };
    // One item and a text of 119 characters just fill the 128 bytes; 16 items do too.
    const std::string x112(112, 'x');
    EXPECT_EQ(parse(R"({"dnsproxy.features": {"ifname": ")" + x112 + "1234567\"}}", features), 1);
    EXPECT_EQ(std::strlen(rjson_item_text(&area, &area.items[0])), 119u);
    EXPECT_EQ(parse("{\"many\": {" + many.substr(2, many.rfind(',') - 2) + "}}", kmany), 16);
    EXPECT_EQ(area.items[15].value, 15u);
    const struct {
        std::string params;
        const char* reason;
    } cases[] = {
        {R"({"dnsproxy.features": {"edns": "1"}})", "edns takes a number"},
        {R"({"dnsproxy.features": {"edns": -1}})", "edns is out of range"},
        {R"({"dnsproxy.features": {"ifname": ")" + x112 + "12345678\"}}", "do not fit"},
        {R"({"dnsproxy.features": {"edns": 1, "ifname": ")" + x112 + "\"}}", "do not fit"},
        {R"({"dnsproxy.features": {"ifname": ")" + x112 + R"(", "edns": 1}})", "do not fit"},
        {"{\"many\": {" + many.substr(2) + "}}", "many has more than 16 items"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parse(c.params, c.params[2] == 'm' ? kmany : features), RJSON_ERR_INVALID);
        EXPECT_NE(std::string(rjson_last_error()).find(c.reason), std::string::npos) << c.params;
        EXPECT_EQ(std::memcmp(&area, &pattern, sizeof area), 0) << c.params;
    }
}

} // namespace
