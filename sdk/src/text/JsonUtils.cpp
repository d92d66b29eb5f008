#include "sdk/text/JsonUtils.h"

#include <json/reader.h>
#include <json/writer.h>

#include <exception>
#include <memory>

#include "sdk/text/StrUtils.h"
#include "sdk/text/Utf8.h"

namespace SDK {

namespace {

constexpr int kMaxDepth = 256;

Json::CharReaderBuilder ReaderBuilder() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kMaxDepth;
    return builder;
}

Json::StreamWriterBuilder WriterBuilder() {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    builder["emitUTF8"] = true;
    return builder;
}

/// The first of JsonCpp's messages ("* Line 1, Column 2\n  words\n...") on one line.
std::string FirstError(const std::string& messages) {
    std::string text = messages.substr(0, messages.find("\n* "));
    if (text.compare(0, 2, "* ") == 0) text.erase(0, 2);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    for (std::size_t line = text.find("\n  "); line != std::string::npos;
         line = text.find("\n  ", line)) {
        text.replace(line, 3, ": ");
    }
    return ToValidUtf8(text);
}

/// Finds what JsonCpp accepts even in strict mode: a comment between members, and a NUL byte, which
/// it takes for the end of the text. Neither "/" nor NUL is valid outside a string. "" when there
/// is none.
std::string FindLeniency(const char* text, std::size_t length) {
    bool in_string = false;
    int line = 1;
    std::size_t line_start = 0;
    for (std::size_t i = 0; i < length; ++i) {
        if (text[i] == '\n') {
            ++line;
            line_start = i + 1;
        } else if (text[i] == '"') {
            in_string = !in_string;
        } else if (in_string && text[i] == '\\') {
            ++i;
        } else if (!in_string && (text[i] == '/' || text[i] == '\0')) {
            return StrUtils::Format("Line %d, Column %zu: a %s is not allowed", line,
                                    i - line_start + 1, text[i] == '/' ? "comment" : "NUL byte");
        }
    }
    return {};
}

/// The member, or null when `object` is no object or has none of that name.
const Json::Value* Find(const Json::Value& object, const char* key) {
    if (!object.isObject() || key == nullptr) return nullptr;
    return object.find(key, key + std::char_traits<char>::length(key));
}

}  // namespace

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& out) {
    std::string error;
    return ParseJsonStr(text, length, out, error);
}

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& out,
                            std::string& error) {
    error.clear();
    out = Json::Value();
    if (text == nullptr || length == 0) {
        error = "the text is empty";
        return -1;
    }
    try {
        static const Json::CharReaderBuilder builder = ReaderBuilder();
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        std::string messages;
        error = reader->parse(text, text + length, &out, &messages) ? FindLeniency(text, length)
                                                                    : FirstError(messages);
        if (error.empty()) return 0;
    } catch (const std::exception& exception) {
        error = FirstError(exception.what());  // such as too deep nesting
    }
    out = Json::Value();
    return -1;
}

bool JsonUtils::GetSubobjectValue(const Json::Value& object, const char* key, Json::Value& out) {
    const Json::Value* member = Find(object, key);
    if (member == nullptr || !member->isObject()) return false;
    out = Json::Value(*member);  // `out` may be `object`
    return true;
}

bool JsonUtils::GetArrayValue(const Json::Value& object, const char* key, Json::Value& out) {
    const Json::Value* member = Find(object, key);
    if (member == nullptr || !member->isArray()) return false;
    out = Json::Value(*member);
    return true;
}

int JsonUtils::GetIntValue(const Json::Value& object, const char* key, int fallback) {
    const Json::Value* member = Find(object, key);
    return member != nullptr && member->isInt() ? member->asInt() : fallback;
}

bool JsonUtils::GetBoolValue(const Json::Value& object, const char* key, bool fallback) {
    const Json::Value* member = Find(object, key);
    return member != nullptr && member->isBool() ? member->asBool() : fallback;
}

std::string JsonUtils::GetStringValue(const Json::Value& object, const char* key,
                                      const char* fallback) {
    const Json::Value* member = Find(object, key);
    if (member == nullptr || !member->isString()) return fallback == nullptr ? "" : fallback;
    return member->asString();
}

std::string JsonUtils::PointerTo(const std::string& base, std::string_view name) {
    std::string pointer = base + "/";
    for (const char c : name) {
        if (c == '~') {
            pointer += "~0";
        } else if (c == '/') {
            pointer += "~1";
        } else {
            pointer += c;
        }
    }
    return pointer;
}

std::string JsonUtils::JsonToString(const Json::Value& value) {
    try {
        static const Json::StreamWriterBuilder builder = WriterBuilder();
        // JsonCpp escapes control characters and copies all other bytes, so invalid UTF-8 can be
        // replaced in the written text.
        return ToValidUtf8(Json::writeString(builder, value));
    } catch (const std::exception&) {
        return "null";
    }
}

}  // namespace SDK
