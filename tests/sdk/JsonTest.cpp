#include <gtest/gtest.h>
#include <json/value.h>

#include <climits>

#include "sdk/JsonUtils.h"

namespace {

using SDK::JsonUtils;

int Parse(const std::string& text, Json::Value& out) {
    return JsonUtils::ParseJsonStr(text.data(), text.size(), out);
}

std::string Written(const std::string& text) {
    return JsonUtils::JsonToString(Json::Value(text));
}

std::string Nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
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
    EXPECT_EQ(Parse(Nested(256), out), 0);
    EXPECT_EQ(Parse(Nested(258), out), -1);
    EXPECT_EQ(Parse(std::string(10 * 1024 * 1024, '['), out), -1);
    EXPECT_EQ(Parse(std::string(10 * 1024 * 1024, '\xFE'), out), -1);
}

TEST(JsonParse, Error_NamesThePlaceOnOneLine) {
    Json::Value out;
    std::string error;
    const std::string text = "{\n\"a\": x}";
    EXPECT_EQ(JsonUtils::ParseJsonStr(text.data(), text.size(), out, error), -1);
    EXPECT_EQ(error.rfind("Line 2, Column 6: ", 0), 0U) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_EQ(JsonUtils::ParseJsonStr("{}", 2, out, error), 0);
    EXPECT_EQ(error, "");
}

TEST(JsonGet, MissingOrOtherType_GivesTheDefault) {
    Json::Value object;
    ASSERT_EQ(Parse("{\"i\":7,\"s\":\"1\",\"r\":1.5,\"big\":2147483648,\"min\":-2147483648,"
                    "\"b\":true,\"o\":{\"x\":1},\"a\":[2],\"n\":null}",
                    object),
              0);
    EXPECT_EQ(JsonUtils::GetIntValue(object, "i", -1), 7);
    EXPECT_EQ(JsonUtils::GetIntValue(object, "min", -1), INT_MIN);
    for (const char* key : {"s", "r", "big", "b", "o", "a", "n", "missing"}) {
        EXPECT_EQ(JsonUtils::GetIntValue(object, key, -1), -1) << key;
    }
    EXPECT_TRUE(JsonUtils::GetBoolValue(object, "b", false));
    EXPECT_TRUE(JsonUtils::GetBoolValue(object, "i", true));
    EXPECT_EQ(JsonUtils::GetStringValue(object, "s", "-"), "1");
    EXPECT_EQ(JsonUtils::GetStringValue(object, "i", "-"), "-");
    EXPECT_EQ(JsonUtils::GetIntValue(object["a"], "x", -1), -1);  // no object at all

    Json::Value out;
    EXPECT_FALSE(JsonUtils::GetSubobjectValue(object, "a", out));
    EXPECT_FALSE(JsonUtils::GetArrayValue(object, "o", out));
    EXPECT_TRUE(JsonUtils::GetArrayValue(object, "a", out));
    EXPECT_EQ(out[0].asInt(), 2);
    EXPECT_TRUE(JsonUtils::GetSubobjectValue(object, "o", object));  // into itself
    EXPECT_EQ(JsonUtils::GetIntValue(object, "x", -1), 1);
}

TEST(JsonWrite, AnyBytes_BecomeValidUtf8OnOneLine) {
    EXPECT_EQ(Written("a\"\\/\n\x01\x7F"), "\"a\\\"\\\\/\\n\\u0001\x7F\"");
    EXPECT_EQ(Written(std::string("a\0b", 3)), "\"a\\u0000b\"");
    EXPECT_EQ(Written("\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "\"\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80\"");
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
    object["a"].append(1);
    const std::string text = JsonUtils::JsonToString(object);
    Json::Value again;
    EXPECT_EQ(Parse(text, again), 0) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(again.size(), 2U);
}

}  // namespace
