#pragma once

#include <json/value.h>
#include <sdk/text/JsonUtils.h>

#include <string>
#include <utility>
#include <vector>

namespace Engine {

/// One remark about a policy document.
struct PolicyFinding {
    std::string pointer;  ///< JSON pointer of the place; empty for the document as a whole
    std::string message;
};

/// The findings of a check: errors refuse the document, warnings do not.
struct PolicyFindings {
    std::vector<PolicyFinding> errors;
    std::vector<PolicyFinding> warnings;

    void Error(std::string pointer, std::string message) {
        errors.push_back({std::move(pointer), std::move(message)});
    }
    void Warning(std::string pointer, std::string message) {
        warnings.push_back({std::move(pointer), std::move(message)});
    }
};

inline std::string PointerTo(const std::string& base, const std::string& name) {
    return SDK::JsonUtils::PointerTo(base, name);
}
inline std::string PointerTo(const std::string& base, Json::ArrayIndex index) {
    return base + "/" + std::to_string(index);
}

}  // namespace Engine
