#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>

#include "platform/rcsd/rcsd.h"
#include "platform/rjson/rjson.h"
#include "test_support.h"

namespace {

constexpr const char* kApi = "orvik.kiv.dnsproxy.itf.json.api";
constexpr const char* kMsg = "orvik.kiv.dnsproxy.itf.json.msg";

constexpr rjson_key_desc kFeatureKeys[] = {
    {"force_register", 1, RJSON_VALUE_U32}, {"edns", 2, RJSON_VALUE_U32},
    {"intercept", 3, RJSON_VALUE_U32},      {"dslite", 4, RJSON_VALUE_U32},
    {"ifname", 20, RJSON_VALUE_TEXT},       {"alias", 21, RJSON_VALUE_TEXT},
};
constexpr rjson_object_desc kFeatures = rjson_object("dnsproxy.features", kFeatureKeys);

// 17 keys k0..k16, to overfill the area.
constexpr rjson_key_desc kManyKeys[] = {
    {"k0", 1, RJSON_VALUE_U32},  {"k1", 1, RJSON_VALUE_U32},  {"k2", 1, RJSON_VALUE_U32},
    {"k3", 1, RJSON_VALUE_U32},  {"k4", 1, RJSON_VALUE_U32},  {"k5", 1, RJSON_VALUE_U32},
    {"k6", 1, RJSON_VALUE_U32},  {"k7", 1, RJSON_VALUE_U32},  {"k8", 1, RJSON_VALUE_U32},
    {"k9", 1, RJSON_VALUE_U32},  {"k10", 1, RJSON_VALUE_U32}, {"k11", 1, RJSON_VALUE_U32},
    {"k12", 1, RJSON_VALUE_U32}, {"k13", 1, RJSON_VALUE_U32}, {"k14", 1, RJSON_VALUE_U32},
    {"k15", 1, RJSON_VALUE_U32}, {"k16", 1, RJSON_VALUE_U32},
};
constexpr rjson_object_desc kMany = rjson_object("many", kManyKeys);

// The handlers parse into one area that the tests inspect; it starts filled with a pattern so
// that a refused parse can be seen to leave it alone.
rjson_item_area area;
const rjson_object_desc* parse_desc = &kFeatures;
std::string last_message;

int parse_method(const json_object* params, char* result, uint32_t size) {
    const int n = rjson_parse_json_object(params, parse_desc, &area);
    if (n >= 0) std::snprintf(result, size, "%d items", n);
    return n < 0 ? -422 : n;
}

int cli_message(const json_object* params) {
    const char* tty = rjson_get_text(params, "kiv.cli", "tty_name");
    const char* cmd = rjson_get_text(params, "kiv.cli", "cmd");
    last_message =
        std::string(tty != nullptr ? tty : "NULL") + "|" + (cmd != nullptr ? cmd : "NULL");
    return 0;
}

const rjson_json_method kMethods[] = {{"parse", parse_method}};
const rjson_json_message kMessages[] = {{"kiv_msg_cli_cmd", cli_message}};

class JsonService : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(rcsd_init("orvik.kiv.dnsproxy"), RCSD_OK);
        ASSERT_EQ(rjson_init("orvik.kiv.dnsproxy"), RJSON_OK);
        ASSERT_EQ(rjson_add_json_methods(kApi, kMethods, std::size(kMethods)), RJSON_OK);
        ASSERT_EQ(rjson_add_json_messages(kMsg, kMessages, std::size(kMessages)), RJSON_OK);
        std::memset(&area, 0xAB, sizeof area);
        parse_desc = &kFeatures;
        last_message.clear();
    }
    void TearDown() override {
        rjson_done();
        rcsd_done();
    }

    // A "parse" request with the given params text; the status, result text in result_.
    int invoke(const std::string& params) {
        const std::string request = "{\"name\": \"parse\", \"params\": " + params + "}";
        return rjson_process_kiv_method(kApi, request.c_str(), result_, sizeof result_);
    }
    bool area_untouched() const {
        const auto* bytes = reinterpret_cast<const unsigned char*>(&area);
        for (size_t i = 0; i < sizeof area; ++i) {
            if (bytes[i] != 0xAB) return false;
        }
        return true;
    }
    char result_[RCSD_RESULT_SIZE];
};

TEST_F(JsonService, ItemsFollowDocumentOrderWithTextsInTheArea) {
    StderrCapture err;
    ASSERT_EQ(invoke(R"({"dnsproxy.features": {"dslite": 4294967295, "ifname": "eth1",
                         "force_register": true, "edns": 0, "alias": ""}, "other": [1]})"),
              5);
    EXPECT_STREQ(result_, "5 items");
    EXPECT_EQ(area.items[0].code, 4u);
    EXPECT_EQ(area.items[0].value, 4294967295u);
    EXPECT_EQ(area.items[1].code, 20u);
    EXPECT_STREQ(rjson_item_text(&area, &area.items[1]), "eth1");
    EXPECT_EQ(area.items[2].code, 1u);
    EXPECT_EQ(area.items[2].value, 1u);
    EXPECT_EQ(area.items[3].code, 2u);
    EXPECT_EQ(area.items[3].value, 0u);
    EXPECT_STREQ(rjson_item_text(&area, &area.items[4]), "");
    // An empty object is zero items, and clears nothing it was not asked to.
    EXPECT_EQ(invoke(R"({"dnsproxy.features": {}})"), 0);
    EXPECT_EQ(err.text(), "");
}

TEST_F(JsonService, MalformedOrUnfitParamsAreRefusedAndChangeNothing) {
    StderrCapture err;
    struct refused {
        std::string params;
        const char* reason;
    };
    const refused cases[] = {
        {R"({"dnsproxy.features": {"edns": "1"}})", "edns takes a number"},
        {R"({"dnsproxy.features": {"edns": 1.0}})", "edns takes a number"},
        {R"({"dnsproxy.features": {"edns": -1}})", "edns is out of range"},
        {R"({"dnsproxy.features": {"ifname": 3}})", "ifname takes a text"},
        {R"({"dnsproxy.features": {"ifname": "a\u0000b"}})", "NUL"},
        {R"({"dnsproxy.features": {"edns": 1, "Edns": 1}})", "unknown key dnsproxy.features.Edns"},
        {R"({"dnsproxy.features": [1]})", "no object dnsproxy.features"},
        {"null", "no object"},
        // 8 bytes of item and 121 of text do not fit in 128.
        {R"({"dnsproxy.features": {"ifname": ")" + std::string(120, 'x') + "\"}}", "do not fit"},
        {R"({"dnsproxy.features": {"edns": 1, "ifname": ")" + std::string(112, 'x') + "\"}}",
         "do not fit"},
        {R"({"dnsproxy.features": {"ifname": ")" + std::string(112, 'x') + R"(", "edns": 1}})",
         "do not fit"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(invoke(c.params), -422) << c.params;
        EXPECT_NE(std::string(result_).find(c.reason), std::string::npos) << result_;
        EXPECT_STREQ(result_, rjson_last_error());
        EXPECT_TRUE(area_untouched()) << c.params;
    }
    // Just fitting: one item and a text of 119 characters fill the 128 bytes.
    EXPECT_EQ(invoke(R"({"dnsproxy.features": {"ifname": ")" + std::string(119, 'y') + "\"}}"), 1);
    EXPECT_EQ(std::strlen(rjson_item_text(&area, &area.items[0])), 119u);
    EXPECT_NE(err.text().find("rjson: method parse failed (-422): dnsproxy.features.edns takes"),
              std::string::npos);
}

TEST_F(JsonService, AtMostSixteenItems) {
    parse_desc = &kMany;
    std::string members;
    for (int i = 0; i < 16; ++i)
        members +=
            (i ? "," : "") + std::string("\"k") + std::to_string(i) + "\": " + std::to_string(i);
    EXPECT_EQ(invoke("{\"many\": {" + members + "}}"), 16);
    EXPECT_EQ(area.items[15].value, 15u);
    std::memset(&area, 0xAB, sizeof area);
    StderrCapture err;
    EXPECT_EQ(invoke("{\"many\": {" + members + ", \"k16\": 16}}"), -422);
    EXPECT_STREQ(result_, "many has more than 16 items");
    EXPECT_TRUE(area_untouched());
}

TEST_F(JsonService, EnvelopesAreCheckedBeforeAnyHandler) {
    StderrCapture err;
    const char* malformed[] = {
        "",
        "{",
        "[1]",
        R"({"params": {}})",
        R"({"name": 1})",
        "{'name': 'parse'}",
        R"({"name": "parse"} x)",
        R"({"name": "parse", "params": 3})",
        R"({"name": "parse",})",
        R"({"name": "parse\u0000x"})", // not to be taken for "parse"
    };
    for (const char* text : malformed) {
        EXPECT_EQ(rjson_process_kiv_method(kApi, text, result_, sizeof result_), RJSON_ERR_SYNTAX)
            << text;
        EXPECT_NE(result_[0], '\0') << text;
        EXPECT_EQ(rjson_process_kiv_message(kMsg, text), RJSON_ERR_SYNTAX) << text;
    }
    EXPECT_EQ(rjson_process_kiv_method(kApi, R"({"name": "parse "})", result_, sizeof result_),
              RJSON_ERR_NAME);
    EXPECT_STREQ(result_, "no method parse  on orvik.kiv.dnsproxy.itf.json.api");
    // Names are looked up on the interface the text arrived on.
    EXPECT_EQ(rjson_process_kiv_method(kMsg, R"({"name": "parse"})", result_, sizeof result_),
              RJSON_ERR_NAME);
    EXPECT_EQ(rjson_process_kiv_message(kApi, R"({"name": "kiv_msg_cli_cmd"})"), RJSON_ERR_NAME);
    EXPECT_TRUE(area_untouched());
    EXPECT_TRUE(last_message.empty());
    // Trailing white space is fine; a handler without params gets null.
    EXPECT_EQ(rjson_process_kiv_message(kMsg, "{\"name\": \"kiv_msg_cli_cmd\"} \n"), 0);
    EXPECT_EQ(last_message, "NULL|NULL");
}

TEST_F(JsonService, SignalTextReachesTheMessageHandler) {
    ASSERT_EQ(rcsd_register_message_handler(kMsg, "kivMessage", rjson_process_kiv_message),
              RCSD_OK);
    // The payload is counted: the bytes after it are not part of the text.
    const std::string text =
        R"({"name":"kiv_msg_cli_cmd","params":{"kiv.cli":{"tty_name":"/dev/pts/3","cmd":"view config"}}})";
    const std::string padded = text + "garbage";
    EXPECT_EQ(rcsd_process_kiv_signal(kMsg, "kivMessage", padded.data(), text.size()), 0);
    EXPECT_EQ(last_message, "/dev/pts/3|view config");

    StderrCapture err;
    last_message.clear();
    const char with_nul[] = "{\"name\":\0\"kiv_msg_cli_cmd\"}";
    EXPECT_EQ(rcsd_process_kiv_signal(kMsg, "kivMessage", with_nul, sizeof with_nul - 1),
              RCSD_ERR_BAD_TEXT);
    EXPECT_EQ(rcsd_process_kiv_signal(kMsg, "kivMessage", nullptr, 0), RCSD_ERR_BAD_TEXT);
    EXPECT_EQ(rcsd_process_kiv_signal(kMsg, "kivOther", text.data(), text.size()),
              RCSD_ERR_NO_HANDLER);
    EXPECT_EQ(rcsd_process_kiv_signal(kApi, "kivMessage", text.data(), text.size()),
              RCSD_ERR_NO_HANDLER);
    EXPECT_TRUE(last_message.empty());
}

TEST_F(JsonService, SyncInvokeRunsTheApiInterfaceHandler) {
    EXPECT_EQ(rcsd_kiv_sync_invoke(R"({"name":"parse"})", result_, sizeof result_),
              RCSD_ERR_NO_HANDLER);
    EXPECT_STREQ(result_, "no JSON API handler registered");
    // The handler belongs to the registered API interface, under its one name.
    EXPECT_EQ(rcsd_register_sync_method_handler(kApi, RCSD_SYNC_METHOD, rjson_process_kiv_method),
              RCSD_ERR_STATE);
    ASSERT_EQ(rcsd_register_json_api_interface(kApi), RCSD_OK);
    EXPECT_EQ(rcsd_register_json_api_interface(kMsg), RCSD_ERR_STATE);
    EXPECT_EQ(rcsd_register_sync_method_handler(kApi, "other", rjson_process_kiv_method),
              RCSD_ERR_STATE);
    ASSERT_EQ(rcsd_register_sync_method_handler(kApi, RCSD_SYNC_METHOD, rjson_process_kiv_method),
              RCSD_OK);
    EXPECT_EQ(rcsd_kiv_sync_invoke(R"({"name":"parse","params":{"dnsproxy.features":{"edns":1}}})",
                                   result_, sizeof result_),
              1);
    EXPECT_STREQ(result_, "1 items");
    // A small result buffer cuts the text but keeps it terminated.
    char small[4];
    EXPECT_EQ(rcsd_kiv_sync_invoke(R"({"name":"parse","params":{"dnsproxy.features":{}}})", small,
                                   sizeof small),
              0);
    EXPECT_STREQ(small, "0 i");
    // A refusal always has a reason, cut on a character boundary when it is long.
    const rjson_json_method quiet[] = {
        {"quiet", [](const json_object*, char*, uint32_t) { return -7; }}};
    ASSERT_EQ(rjson_add_json_methods(kApi, quiet, 1), RJSON_OK);
    EXPECT_EQ(rcsd_kiv_sync_invoke(R"({"name":"quiet"})", result_, sizeof result_), -7);
    EXPECT_STREQ(result_, "quiet refused the request");
    char cut[12];
    EXPECT_EQ(rcsd_kiv_sync_invoke("{\"name\":\"\xC3\xA9\xC3\xA9\"}", cut, sizeof cut),
              RJSON_ERR_NAME);
    EXPECT_STREQ(cut, "no method ");
}

TEST_F(JsonService, DumpListsEveryRegisteredName) {
    const rjson_json_method more[] = {{"dp_api_cfg_dnsproxy_feature", parse_method}};
    ASSERT_EQ(rjson_add_json_methods(kApi, more, 1), RJSON_OK);
    StderrCapture err;
    EXPECT_EQ(rjson_dump_registered_messages(), 1);
    EXPECT_EQ(rjson_dump_registered_methods(), 2);
    EXPECT_EQ(err.text(), "\nJSON messages of orvik.kiv.dnsproxy\n"
                          "  orvik.kiv.dnsproxy.itf.json.msg kiv_msg_cli_cmd\n"
                          "\nJSON methods of orvik.kiv.dnsproxy\n"
                          "  orvik.kiv.dnsproxy.itf.json.api parse\n"
                          "  orvik.kiv.dnsproxy.itf.json.api dp_api_cfg_dnsproxy_feature\n");
}

} // namespace
