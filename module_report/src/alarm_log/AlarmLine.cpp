#include "alarm_log/AlarmLine.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/Utf8.h>

#include <algorithm>

namespace Engine {
namespace {

// JsonCpp accepts raw control characters in strings, which other readers refuse.
bool HasControlCharacter(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20; });
}

}  // namespace

std::string AlarmLine(const std::string& body) {
    Json::Value value;
    const bool is_object =
        SDK::JsonUtils::ParseJsonStr(body.data(), body.size(), value) == 0 && value.isObject();
    if (!is_object) {
        value = Json::Value(Json::objectValue);
        value["body"] = body;
    } else if (!HasControlCharacter(body) && SDK::ToValidUtf8(body) == body) {
        return body + "\n";
    }
    return SDK::JsonUtils::JsonToString(value) + "\n";
}

}  // namespace Engine
