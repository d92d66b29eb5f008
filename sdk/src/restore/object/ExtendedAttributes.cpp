#include "restore/object/ExtendedAttributes.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

// The kernel's limit (XATTR_LIST_MAX, XATTR_SIZE_MAX), and the first size to try.
constexpr std::size_t kMaxSize = 64 * 1024;
constexpr std::size_t kUsualSize = 256;

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

std::string OpenedPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

}  // namespace

/// System attributes only show other data, except the ACLs. Without root only user attributes and
/// ACLs can be set.
bool IsRestoredAttribute(std::string_view name) {
    if (StrUtils::BeginsWith(name, "system."))
        return StrUtils::BeginsWith(name, "system.posix_acl_");
    return StrUtils::BeginsWith(name, "user.") || ::geteuid() == 0;
}

// The path of an open object leads to the object itself, even when that is a link.
ExtendedAttributeAccess::ExtendedAttributeAccess(int fd, bool is_path)
    : by_(is_path ? By::kOpenedPath : By::kDescriptor), fd_(fd), path_(OpenedPath(fd)) {}

ExtendedAttributeAccess::ExtendedAttributeAccess(int directory, const std::string& name)
    : by_(By::kName), fd_(directory), path_(OpenedPath(directory) + "/" + name) {}

int ExtendedAttributeAccess::Read(ExtendedAttributes& found, const Filter& filter) const {
    found = {};
    std::vector<std::string> names;
    if (Names(names, filter) != 0) return -1;
    std::size_t bytes = 0;
    for (const std::string& name : names) {
        std::string value;
        if (Get(name, value) != 0) {
            if (errno != ENODATA) return -1;
            continue;
        }
        bytes += name.size() + value.size();
        if (bytes > ExtendedAttributes::kMostBytes) {
            found.is_cut = true;
            return 0;
        }
        found.values.emplace(name, std::move(value));
    }
    return 0;
}

// Reads no value that is not wanted: there may be very many.
int ExtendedAttributeAccess::Make(const ExtendedAttributes& wanted, const Filter& filter) const {
    std::vector<std::string> present;
    if (Names(present, filter) != 0) return -1;
    int error = 0;
    const auto note = [&error](int result) {
        if (result != 0 && error == 0) error = errno;
    };
    // Removes first, since all attributes may share one block.
    for (const std::string& name : present) {
        if (!wanted.Has(name)) note(Remove(name));
    }
    for (const auto& [name, value] : wanted.values) {
        std::string found;
        const bool is_there = std::binary_search(present.begin(), present.end(), name);
        if (!is_there || Get(name, found) != 0 || found != value) note(Set(name, value));
    }
    errno = error;
    return error == 0 ? 0 : -1;
}

/// In their order, so that the same ones are read of equal objects.
int ExtendedAttributeAccess::Names(std::vector<std::string>& names, const Filter& filter) const {
    std::string list;
    if (List(list) != 0) {
        const bool is_without_proc = by_ != By::kDescriptor && errno == ENOENT;
        return errno == ENOTSUP || is_without_proc ? 0 : -1;
    }
    for (std::size_t start = 0; start < list.size();) {
        std::string name(list.c_str() + start);
        start += name.size() + 1;
        if (filter(name)) names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return 0;
}

int ExtendedAttributeAccess::List(std::string& names) const {
    return ReadWhole(names, [this](char* buffer, std::size_t size) {
        if (by_ == By::kDescriptor) return ::flistxattr(fd_, buffer, size);
        return by_ == By::kName ? ::llistxattr(path_.c_str(), buffer, size)
                                : ::listxattr(path_.c_str(), buffer, size);
    });
}

int ExtendedAttributeAccess::Get(const std::string& name, std::string& value) const {
    return ReadWhole(value, [&](char* buffer, std::size_t size) {
        if (by_ == By::kDescriptor) return ::fgetxattr(fd_, name.c_str(), buffer, size);
        return by_ == By::kName ? ::lgetxattr(path_.c_str(), name.c_str(), buffer, size)
                                : ::getxattr(path_.c_str(), name.c_str(), buffer, size);
    });
}

int ExtendedAttributeAccess::Set(const std::string& name, const std::string& value) const {
    if (by_ == By::kDescriptor) {
        return ::fsetxattr(fd_, name.c_str(), value.data(), value.size(), 0);
    }
    const auto set = by_ == By::kName ? ::lsetxattr : ::setxattr;
    return set(path_.c_str(), name.c_str(), value.data(), value.size(), 0);
}

int ExtendedAttributeAccess::Remove(const std::string& name) const {
    int result = 0;
    if (by_ == By::kDescriptor) {
        result = ::fremovexattr(fd_, name.c_str());
    } else {
        result = (by_ == By::kName ? ::lremovexattr : ::removexattr)(path_.c_str(), name.c_str());
    }
    return result != 0 && errno == ENODATA ? 0 : result;
}

}  // namespace SDK
