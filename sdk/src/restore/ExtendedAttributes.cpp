#include "restore/ExtendedAttributes.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

// The kernel's limit (XATTR_LIST_MAX, XATTR_SIZE_MAX), and the first size to try.
constexpr std::size_t kMaxSize = 64 * 1024;
constexpr std::size_t kUsualSize = 256;

/// System attributes only show other data, except the ACLs. Without root only user attributes and
/// ACLs can be set.
bool IsRestored(std::string_view name) {
    if (StrUtils::BeginsWith(name, "system."))
        return StrUtils::BeginsWith(name, "system.posix_acl_");
    return StrUtils::BeginsWith(name, "user.") || ::geteuid() == 0;
}

/// Calls `read(buffer, size)` with a buffer that is large enough.
template <typename Read>
int ReadWhole(std::string& text, Read read) {
    text.resize(kUsualSize);
    ssize_t got = read(text.data(), text.size());
    if (got < 0 && errno == ERANGE) {
        text.resize(kMaxSize);
        got = read(text.data(), text.size());
    }
    text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return got < 0 ? -1 : 0;
}

}  // namespace

// This path leads to the open object itself, even when that is a link.
ExtendedAttributeAccess::ExtendedAttributeAccess(int fd, bool is_path)
    : fd_(fd), path_(is_path ? "/proc/self/fd/" + std::to_string(fd) : "") {}

int ExtendedAttributeAccess::Read(ExtendedAttributes& found) const {
    found.clear();
    std::string names;
    if (List(names) != 0) {
        const bool is_without_proc = !path_.empty() && errno == ENOENT;
        return errno == ENOTSUP || is_without_proc ? 0 : -1;
    }
    for (std::size_t start = 0; start < names.size();) {
        const std::string name(names.c_str() + start);
        start += name.size() + 1;
        if (!IsRestored(name)) continue;
        std::string value;
        if (Get(name, value) == 0) {
            found.emplace(name, std::move(value));
        } else if (errno != ENODATA) {
            return -1;
        }
    }
    return 0;
}

int ExtendedAttributeAccess::Make(const ExtendedAttributes& wanted) const {
    ExtendedAttributes present;
    if (Read(present) != 0) return -1;
    int error = 0;
    const auto note = [&error](int result) {
        if (result != 0 && error == 0) error = errno;
    };
    // Removes first, since all attributes may share one block.
    for (const auto& [name, value] : present) {
        if (wanted.count(name) == 0) note(Remove(name));
    }
    for (const auto& [name, value] : wanted) {
        const auto found = present.find(name);
        if (found == present.end() || found->second != value) note(Set(name, value));
    }
    errno = error;
    return error == 0 ? 0 : -1;
}

int ExtendedAttributeAccess::List(std::string& names) const {
    return ReadWhole(names, [this](char* buffer, std::size_t size) {
        return path_.empty() ? ::flistxattr(fd_, buffer, size)
                             : ::listxattr(path_.c_str(), buffer, size);
    });
}

int ExtendedAttributeAccess::Get(const std::string& name, std::string& value) const {
    return ReadWhole(value, [&](char* buffer, std::size_t size) {
        return path_.empty() ? ::fgetxattr(fd_, name.c_str(), buffer, size)
                             : ::getxattr(path_.c_str(), name.c_str(), buffer, size);
    });
}

int ExtendedAttributeAccess::Set(const std::string& name, const std::string& value) const {
    return path_.empty() ? ::fsetxattr(fd_, name.c_str(), value.data(), value.size(), 0)
                         : ::setxattr(path_.c_str(), name.c_str(), value.data(), value.size(), 0);
}

int ExtendedAttributeAccess::Remove(const std::string& name) const {
    const int result = path_.empty() ? ::fremovexattr(fd_, name.c_str())
                                     : ::removexattr(path_.c_str(), name.c_str());
    return result != 0 && errno == ENODATA ? 0 : result;
}

}  // namespace SDK
