#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace SDK {

/// Reads and writes JSON (JsonCpp). Stateless; any thread; never throws. The getters return the
/// default (or false) when `object` is no object, the member is missing, or it is of another type:
/// a "1" is no integer, a 1.5 neither, and an integer outside the range of int neither.
class JsonUtils {
  public:
    /// Parses `length` bytes; 0 when they are one JSON object or array, -1 otherwise (`out` is then
    /// null). Refuses trailing text, duplicate keys, comments and a nesting deeper than 256.
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& out);

    /// The same; `error` says in words what is wrong, with line and column.
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& out,
                            std::string& error);

    static bool GetSubobjectValue(const Json::Value& object, const char* key, Json::Value& out);
    static bool GetArrayValue(const Json::Value& object, const char* key, Json::Value& out);
    static int GetIntValue(const Json::Value& object, const char* key, int fallback);
    static bool GetBoolValue(const Json::Value& object, const char* key, bool fallback);
    static std::string GetStringValue(const Json::Value& object, const char* key,
                                      const char* fallback);

    /// The JSON pointer to the member `name` of what `base` points to.
    static std::string PointerTo(const std::string& base, std::string_view name);

    /// One line, no white space outside strings, without a line end. Always valid UTF-8, whatever
    /// bytes the strings hold: a byte that is no UTF-8 is written as U+FFFD.
    static std::string JsonToString(const Json::Value& value);
};

}  // namespace SDK
