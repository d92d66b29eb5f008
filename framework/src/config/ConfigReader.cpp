#include "config/ConfigReader.h"

#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <utility>

namespace Framework {

ConfigReader::ConfigReader(const Json::Value& object, std::string pointer, std::string& error)
    : object_(object.isObject() ? object : Json::Value(Json::objectValue)),
      pointer_(std::move(pointer)),
      error_(error) {
    if (!object.isObject() && error_.empty()) {
        error_ = (pointer_.empty() ? "the document" : pointer_) + ": must be an object";
    }
}

std::string ConfigReader::PointerTo(std::string_view key) const {
    return SDK::JsonUtils::PointerTo(pointer_, key);
}

void ConfigReader::Fail(std::string_view key, const std::string& what) {
    if (error_.empty()) error_ = PointerTo(key) + ": " + what;
}

bool ConfigReader::Has(const char* key) const {
    return object_.isMember(key);
}

void ConfigReader::AllowOnly(std::initializer_list<std::string_view> keys) {
    for (const std::string& key : object_.getMemberNames()) {
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) Fail(key, "unknown key");
    }
}

void ConfigReader::Read(const char* key, std::string& value) {
    if (!Has(key)) return;
    if (!object_[key].isString()) return Fail(key, "must be a string");
    value = object_[key].asString();
}

void ConfigReader::Read(const char* key, bool& value) {
    if (!Has(key)) return;
    if (!object_[key].isBool()) return Fail(key, "must be true or false");
    value = object_[key].asBool();
}

void ConfigReader::Read(const char* key, long least, long most, long& value) {
    if (!Has(key)) return;
    const Json::Value& member = object_[key];
    const bool is_integer =
        member.type() == Json::intValue || (member.type() == Json::uintValue && member.isInt64());
    if (!is_integer || member.asInt64() < least || member.asInt64() > most) {
        return Fail(key, "must be an integer from " + std::to_string(least) + " to " +
                             std::to_string(most));
    }
    value = member.asInt64();
}

void ConfigReader::Read(const char* key, std::vector<std::string>& values) {
    if (!Has(key)) return;
    const Json::Value& list = object_[key];
    if (!list.isArray()) return Fail(key, "must be an array of strings");
    std::vector<std::string> read;
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const std::string place = PointerTo(key) + "/" + std::to_string(i);
        if (!list[i].isString()) {
            if (error_.empty()) error_ = place + ": must be a string";
            return;
        }
        read.push_back(list[i].asString());
    }
    values = std::move(read);
}

Json::Value ConfigReader::Object(const char* key) {
    if (!Has(key)) return Json::Value(Json::objectValue);
    if (object_[key].isObject()) return object_[key];
    Fail(key, "must be an object");
    return Json::Value(Json::objectValue);
}

}  // namespace Framework
