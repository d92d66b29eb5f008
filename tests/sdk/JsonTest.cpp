#include <gtest/gtest.h>
#include <json/value.h>

#include "sdk/text/JsonUtils.h"
#include "sdk/text/PercentCode.h"

namespace {

using SDK::JsonUtils;

int Parse(const std::string& text, Json::Value& out) {
    return JsonUtils::ParseJsonStr(text.data(), text.size(), out);
}

std::string Written(const std::string& text) {
    return JsonUtils::JsonToString(Json::Value(text));
}

TEST(JsonParse, AnythingButOneStrictDocument_IsRefused) {
    Json::Value out;
    EXPECT_EQ(Parse(" {\"a\": [\"/*\", \"\\\"//\"]} ", out), 0);
    EXPECT_EQ(out["a"].size(), 2U);
    for (const std::string& text :
         {std::string(), std::string("1"), std::string("{\"a\":1} x"), std::string("{\"a\":1,}"),
          std::string("{\"a\":1,\"a\":2}"), std::string("{/**/}"), std::string("{'a':1}"),
          std::string("{\"a\":NaN}"), std::string("{\"a\":"), std::string("\0\xFF\x80", 3),
          std::string("{}\0x", 4), std::string("{\"a\\\"\":1 // x\n}")}) {
        EXPECT_EQ(Parse(text, out), -1) << text;
        EXPECT_TRUE(out.isNull()) << text;
    }
    EXPECT_EQ(JsonUtils::ParseJsonStr(nullptr, 0, out), -1);
}

TEST(JsonParse, DeepOrHugeInput_IsRefusedWithoutHarm) {
    Json::Value out;
    EXPECT_EQ(Parse(std::string(256, '[') + std::string(256, ']'), out), 0);
    for (const std::size_t depth : {258, 10 * 1024 * 1024}) {
        EXPECT_EQ(Parse(std::string(depth, '[') + std::string(depth, ']'), out), -1);
    }
}

TEST(JsonWrite, AnyBytes_BecomeValidUtf8OnOneLine) {
    EXPECT_EQ(Written("a\"\\/\n\x01\x7F"), "\"a\\\"\\\\/\\n\\u0001\x7F\"");
    const std::string bad = "\xEF\xBF\xBD";
    EXPECT_EQ(Written("\xFF"), '"' + bad + '"');
    EXPECT_EQ(Written("x\xC3"), "\"x" + bad + '"');                                // cut off
    EXPECT_EQ(Written("\xC0\xAF"), '"' + bad + bad + '"');                         // overlong
    EXPECT_EQ(Written("\xED\xA0\x80"), '"' + bad + bad + bad + '"');               // a surrogate
    EXPECT_EQ(Written("\xF4\x90\x80\x80y"), '"' + bad + bad + bad + bad + "y\"");  // too large

    std::string all;
    for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
    Json::Value object;
    object[all]["z"] = all;
    const std::string text = JsonUtils::JsonToString(object);
    Json::Value again;
    EXPECT_EQ(Parse(text, again), 0) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(PercentCode, AnyBytes_BecomeAsciiAndBack) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
    const std::string text = SDK::PercentEncode(all);
    for (const char byte : text) EXPECT_TRUE(byte >= ' ' && byte <= '~') << text;
    std::string bytes;
    EXPECT_TRUE(SDK::PercentDecode(text, bytes));
    EXPECT_EQ(bytes, all);
    EXPECT_EQ(SDK::PercentEncode("/a b/100%\n\xff"), "/a b/100%25%0A%FF");
    for (const char* bad : {"%", "%4", "a%4", "%4g", "%-1", "% 1", "%0x", "\n", "\xc3\xbc"}) {
        EXPECT_FALSE(SDK::PercentDecode(bad, bytes)) << bad;
    }
}

}  // namespace
