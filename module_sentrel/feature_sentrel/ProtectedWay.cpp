#include <ProtectedWay.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

namespace Engine {

namespace {

/// The directory that holds what the rule protects, ending in "/".
std::string AnchorOf(const SentrelDirRule& rule) {
    const std::string root = WithoutTrailingSlash(rule.real_path);
    return root.substr(0, root.rfind('/') + 1);
}

bool IsBelowRule(const SentrelDirRule& rule, const std::string& path) {
    const std::string root = WithoutTrailingSlash(rule.real_path);
    if (path.compare(0, root.size(), root) != 0) return false;
    return path.size() == root.size() || path[root.size()] == '/' || root == "/";
}

}  // namespace

std::string WithoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

ProtectedWay::ProtectedWay(const SentrelDirRule& rule, const std::string& path) {
    const std::string wanted = WithoutTrailingSlash(path);
    outside_ = !IsBelowRule(rule, wanted);
    if (!outside_) Walk(AnchorOf(rule), wanted);
}

/// Looks at one component after another, up to a link, the end, or what is no directory.
void ProtectedWay::Walk(const std::string& anchor, const std::string& path) {
    end_path_ = path;
    SDK::FileDescriptor parent(::open(anchor.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::size_t begin = anchor.size();
    while (parent.IsOpen() && begin < path.size()) {
        const std::size_t slash = path.find('/', begin);
        const std::size_t end = slash == std::string::npos ? path.size() : slash;
        const std::string name = path.substr(begin, end - begin);
        begin = end + 1;
        if (name.empty()) continue;
        if (name == "..") {
            outside_ = true;
            return;
        }
        SDK::FileDescriptor next(
            ::openat(parent.Get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat info {};
        if (!next.IsOpen() && errno == ENOENT) {
            end_ = End::kMissing;
        } else if (!next.IsOpen() || ::fstat(next.Get(), &info) != 0) {
            return;
        } else if (S_ISLNK(info.st_mode)) {
            end_ = End::kLink;
        } else if (!S_ISDIR(info.st_mode)) {
            end_ = End::kOther;
        }
        if (end_ != End::kReached) {
            end_path_ = path.substr(0, end);
            is_last_ = end == path.size();
            parent_ = std::move(parent);
            return;
        }
        parent = std::move(next);
    }
}

bool ProtectedWay::RemoveEnd() {
    return ::unlinkat(parent_.Get(), EndName().c_str(), 0) == 0 || errno == ENOENT;
}

// The restore gives it its own mode and owner.
bool ProtectedWay::MakeMissing() {
    return ::mkdirat(parent_.Get(), EndName().c_str(), S_IRWXU) == 0;
}

}  // namespace Engine
