#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/rcsd/rcsd.h"
#include "platform/rjson/rjson.h"
#include "test_support.h"

namespace {

constexpr const char* kApi = "orvik.kiv.dnsproxy.itf.json.api";

// "dnsproxy.features" with a text key, and "many" with the keys k0..k16.
std::string names[17];
rjson_key_desc keys[21] = {{"force_register", 1, RJSON_VALUE_U32},
                           {"edns", 2, RJSON_VALUE_U32},
                           {"dslite", 4, RJSON_VALUE_U32},
                           {"ifname", 20, RJSON_VALUE_TEXT}};
const rjson_object_desc kObjects[] = {{"dnsproxy.features", keys, 4}, {"many", keys + 4, 17}};

// The handler parses into one area that the tests inspect; it starts filled with a pattern so
// that a refused parse can be seen to leave it alone.
rjson_item_area area, pattern;

int parse_method(const json_object* params, char*, uint32_t) {
    int n = rjson_parse_json_object(params, &kObjects[0], &area);
    if (n == RJSON_ERR_INVALID && std::strstr(rjson_last_error(), "no object dnsproxy"))
        n = rjson_parse_json_object(params, &kObjects[1], &area);
    return n < 0 ? -422 : n;
}

TEST(JsonService, ItemsInDocumentOrderOrARefusalThatChangesNothing) {
    static const rjson_json_method methods[] = {{"parse", parse_method}};
    ASSERT_EQ(rcsd_init("orvik.kiv.dnsproxy"), RCSD_OK);
    ASSERT_EQ(rjson_init("orvik.kiv.dnsproxy"), RJSON_OK);
    ASSERT_EQ(rjson_add_json_methods(kApi, methods, 1), RJSON_OK);
    std::string many;
    for (int i = 0; i < 17; ++i) {
        names[i] = "k" + std::to_string(i);
        keys[4 + i] = {names[i].c_str(), 1, RJSON_VALUE_U32};
        many += ", \"" + names[i] + "\": " + std::to_string(i);
    }
    char result[RCSD_RESULT_SIZE];
    auto invoke = [&](const std::string& params) {
        const std::string request = "{\"name\": \"parse\", \"params\": " + params + "}";
        return rjson_process_kiv_method(kApi, request.c_str(), result, sizeof result);
    };
    ASSERT_EQ(invoke(R"({"dnsproxy.features": {"dslite": 4294967295, "ifname": "eth1",
                         "force_register": true, "edns": 0}, "other": [1]})"),
              4);
    EXPECT_EQ(area.items[0].code, 4u);
    EXPECT_EQ(area.items[0].value, 4294967295u);
    EXPECT_STREQ(rjson_item_text(&area, &area.items[1]), "eth1");
    EXPECT_EQ(area.items[2].value, 1u);
    EXPECT_EQ(area.items[3].code, 2u);
    // One item and a text of 119 characters just fill the 128 bytes; 16 items do too.
    EXPECT_EQ(invoke(R"({"dnsproxy.features": {"ifname": ")" + std::string(119, 'y') + "\"}}"), 1);
    EXPECT_EQ(std::strlen(rjson_item_text(&area, &area.items[0])), 119u);
    EXPECT_EQ(invoke("{\"many\": {" + many.substr(2, many.rfind(',') - 2) + "}}"), 16);
    EXPECT_EQ(area.items[15].value, 15u);

    StderrCapture err;
    const std::string x112(112, 'x');
    const struct {
        std::string params;
        const char* reason;
    } cases[] = {
        {R"({"dnsproxy.features": {"edns": "1"}})", "edns takes a number"},
        {R"({"dnsproxy.features": {"edns": -1}})", "edns is out of range"},
        {R"({"dnsproxy.features": {"edns": 1, "Edns": 1}})", "unknown key dnsproxy.features.Edns"},
        {R"({"dnsproxy.features": {"ifname": ")" + std::string(120, 'x') + "\"}}", "do not fit"},
        {R"({"dnsproxy.features": {"edns": 1, "ifname": ")" + x112 + "\"}}", "do not fit"},
        {R"({"dnsproxy.features": {"ifname": ")" + x112 + R"(", "edns": 1}})", "do not fit"},
        {"{\"many\": {" + many.substr(2) + "}}", "many has more than 16 items"},
    };
    std::memset(&pattern, 0xAB, sizeof pattern);
    for (const auto& c : cases) {
        area = pattern;
        EXPECT_EQ(invoke(c.params), -422) << c.params;
        EXPECT_NE(std::string(result).find(c.reason), std::string::npos) << result;
        EXPECT_EQ(std::memcmp(&area, &pattern, sizeof area), 0) << c.params;
    }
    rjson_done();
    rcsd_done();
}

} // namespace
