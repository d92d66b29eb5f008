#include "delivery/RestoreNames.h"

namespace Engine::FileNotify {

namespace {

constexpr std::string_view kTemporaryPrefix = ".morvane-restore-";
constexpr std::size_t kTemporaryDigits = 16;
constexpr std::string_view kHexadecimal = "0123456789abcdef";

bool ConsistsOf(std::string_view text, std::string_view characters) {
    return text.find_first_not_of(characters) == std::string_view::npos;
}

}  // namespace

bool IsRestoreTemporary(std::string_view name) {
    return name.size() == kTemporaryPrefix.size() + kTemporaryDigits &&
           name.substr(0, kTemporaryPrefix.size()) == kTemporaryPrefix &&
           ConsistsOf(name.substr(kTemporaryPrefix.size()), kHexadecimal);
}

}  // namespace Engine::FileNotify
