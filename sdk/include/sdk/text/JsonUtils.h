#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace SDK {

/// Reads and writes JSON (JsonCpp). Stateless and thread-safe; never throws. The getters return the
/// default (or false) when `object` is not an object, or the member is missing or of another type:
/// "1", 1.5 and an integer outside the range of int are not integers.
class JsonUtils {
  public:
    /// Parses `length` bytes; 0 when they are one JSON object or array, -1 otherwise (`out` is then
    /// null). Refuses trailing text, duplicate keys, comments and a nesting deeper than 256.
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& out);

    /// The same; `error` describes the fault with its line and column.
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& out,
                            std::string& error);

    static bool GetSubobjectValue(const Json::Value& object, const char* key, Json::Value& out);
    static bool GetArrayValue(const Json::Value& object, const char* key, Json::Value& out);
    static int GetIntValue(const Json::Value& object, const char* key, int fallback);
    static bool GetBoolValue(const Json::Value& object, const char* key, bool fallback);
    static std::string GetStringValue(const Json::Value& object, const char* key,
                                      const char* fallback);

    /// The JSON pointer to the member `name` of the value at the pointer `base`.
    static std::string PointerTo(const std::string& base, std::string_view name);

    /// One line without white space outside strings and without a line end. Always valid UTF-8: a
    /// byte that is not UTF-8 is written as U+FFFD.
    static std::string JsonToString(const Json::Value& value);
};

}  // namespace SDK
