#include "feature_sentrel/policy_check/PolicyKeyCheck.h"

#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <cctype>
#include <numeric>

namespace Engine {

namespace {

constexpr std::size_t kNearDistance = 2;

using Type = PolicyKey::Type;

const char* NameOf(Type type) {
    switch (type) {
        case Type::kBool:
            return "true or false";
        case Type::kInt:
            return "a whole number";
        case Type::kString:
            return "a string";
        case Type::kObject:
            return "an object";
        case Type::kStringArray:
            return "an array of strings";
        case Type::kIntArray:
            return "an array of whole numbers";
        case Type::kObjectArray:
            return "an array of objects";
    }
    return "";
}

Type ElementType(Type array) {
    switch (array) {
        case Type::kStringArray:
            return Type::kString;
        case Type::kIntArray:
            return Type::kInt;
        default:
            return Type::kObject;
    }
}

bool IsArrayType(Type type) {
    return type == Type::kStringArray || type == Type::kIntArray || type == Type::kObjectArray;
}

bool HasType(const Json::Value& value, Type type) {
    switch (type) {
        case Type::kBool:
            return value.isBool();
        case Type::kInt:
            return value.isInt();
        case Type::kString:
            return value.isString();
        case Type::kObject:
            return value.isObject();
        default:
            return value.isArray();
    }
}

void CheckType(const Json::Value& value, const std::string& pointer, Type type,
               PolicyFindings& findings) {
    if (!HasType(value, type)) {
        findings.Warning(pointer, std::string("must be ") + NameOf(type) + ": it is not used");
        return;
    }
    if (!IsArrayType(type)) return;
    for (Json::ArrayIndex at = 0; at < value.size(); ++at) {
        CheckType(value[at], PointerTo(pointer, at), ElementType(type), findings);
    }
}

/// Also true for the keys of other processors' downloads.
bool IsRsyncSourceKey(const std::string& key) {
    return SDK::StrUtils::BeginsWith(key, "rsync_") &&
           (SDK::StrUtils::EndsWith(key, "_url") || SDK::StrUtils::EndsWith(key, "_hash"));
}

void CheckUnknownKey(const std::string& key, const std::string& pointer,
                     const std::vector<PolicyKey>& known, const std::vector<PolicyKey>& elsewhere,
                     PolicyFindings& findings) {
    for (const PolicyKey& other : elsewhere) {
        if (key != other.name) continue;
        findings.Warning(pointer, "\"" + key + "\" is not read here: it belongs on another level");
        return;
    }
    for (const PolicyKey& other : known) {
        const std::size_t longer = std::max(key.size(), other.name.size());
        const std::size_t shorter = std::min(key.size(), other.name.size());
        if (longer - shorter > kNearDistance || EditDistance(key, other.name) > kNearDistance) {
            continue;
        }
        findings.Warning(pointer,
                         "unknown key, it is ignored; did you mean \"" + other.name + "\"?");
        return;
    }
    findings.Warning(pointer, "unknown key, it is ignored");
}

}  // namespace

void CheckKeys(const Json::Value& object, const std::string& pointer,
               const std::vector<PolicyKey>& known, const std::vector<PolicyKey>& elsewhere,
               PolicyFindings& findings) {
    for (const std::string& name : object.getMemberNames()) {
        const std::string place = PointerTo(pointer, name);
        const auto key = std::find_if(known.begin(), known.end(),
                                      [&name](const PolicyKey& k) { return k.name == name; });
        if (key != known.end()) {
            CheckType(object[name], place, key->type, findings);
        } else if (IsRsyncSourceKey(name)) {
            CheckType(object[name], place, Type::kString, findings);
        } else {
            CheckUnknownKey(name, place, known, elsewhere, findings);
        }
    }
}

std::size_t EditDistance(const std::string& a, const std::string& b) {
    const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (lower(a[i]) == lower(b[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({row[j] + 1, row[j + 1] + 1, replaced});
        }
    }
    return row[b.size()];
}

}  // namespace Engine
