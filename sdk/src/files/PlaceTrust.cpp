#include <sdk/files/PlaceTrust.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>

namespace SDK {

namespace {

constexpr int kMaxLinks = 40;  ///< the kernel's limit

bool IsTrustedUser(uid_t user) {
    return user == 0 || user == ::geteuid();
}

/// With a list the mode's group bits are the upper bound for named users and groups.
bool HasAccessList(const std::string& path) {
    return ::lgetxattr(path.c_str(), "system.posix_acl_access", nullptr, 0) > 0;
}

std::string WhyOwned(const std::string& kind, const std::string& path, const struct stat& info) {
    if (IsTrustedUser(info.st_uid)) return "";
    return "the " + kind + " " + path + " belongs to user " + std::to_string(info.st_uid);
}

const char* KindOf(const struct stat& info) {
    if (S_ISLNK(info.st_mode)) return "link";
    return S_ISDIR(info.st_mode) ? "directory" : "file";
}

std::string WhyOthersWrite(const std::string& path, const struct stat& info) {
    if ((info.st_mode & S_IWOTH) != 0) return "every user may write to " + path;
    if ((info.st_mode & S_IWGRP) == 0) return "";
    if (info.st_gid != 0) {
        return "group " + std::to_string(info.st_gid) + " may write to " + path;
    }
    return HasAccessList(path) ? "an access control list lets others write to " + path : "";
}

bool KeepsOthersOut(const std::string& path, const struct stat& info) {
    if ((info.st_mode & S_IXOTH) != 0) return false;
    return (info.st_mode & S_IXGRP) == 0 || (info.st_gid == 0 && !HasAccessList(path));
}

std::string Failure(const std::string& path, int error) {
    return path + " cannot be looked at: " + std::strerror(error);
}

std::string ParentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

/// Walks along a path from the root and checks each directory together with the next object on the
/// path.
class PathWalk {
  public:
    explicit PathWalk(const std::string& path) {
        if (path.empty() || path.front() != '/') {
            why_ = "the path is not absolute";
            return;
        }
        Prepend(path);
        while (why_.empty() && exists_ && !rest_.empty()) Step();
    }

    const std::string& Why() const { return why_; }
    bool Exists() const { return exists_; }
    /// Where the walk ended; not a link.
    const std::string& End() const { return at_; }

  private:
    void Prepend(const std::string& path) {
        std::size_t end = path.size();
        while (end > 0) {
            const std::size_t slash = path.rfind('/', end - 1);
            const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
            if (begin < end) rest_.push_front(path.substr(begin, end - begin));
            if (slash == std::string::npos) break;
            end = slash;
        }
    }

    void Step() {
        const std::string name = rest_.front();
        rest_.pop_front();
        if (name == ".") return;
        if (name == "..") {
            at_ = ParentOf(at_);
            return;
        }
        const std::string next = (at_ == "/" ? "" : at_) + "/" + name;
        struct stat info {};
        const int error = ::lstat(next.c_str(), &info) == 0 ? 0 : errno;
        exists_ = error != ENOENT;
        why_ =
            exists_ && error != 0 ? Failure(next, error) : Leave(next, exists_ ? &info : nullptr);
        if (!why_.empty() || !exists_) return;
        if (S_ISLNK(info.st_mode)) {
            Follow(next, info);
        } else {
            at_ = next;
        }
    }

    /// Checks the current directory. `next` is the next object on the path, or null when it is
    /// missing.
    std::string Leave(const std::string& next_path, const struct stat* next) const {
        struct stat info {};
        if (::lstat(at_.c_str(), &info) != 0) return Failure(at_, errno);
        std::string why = WhyOwned("directory", at_, info);
        if (!why.empty()) return why;
        why = WhyOthersWrite(at_, info);
        const bool sticky = (info.st_mode & S_ISVTX) != 0;
        if (why.empty() || !sticky || next == nullptr) return why;
        return WhyOwned(KindOf(*next), next_path, *next);
    }

    void Follow(const std::string& link, const struct stat& info) {
        why_ = ++links_ > kMaxLinks ? "too many links lie on the walk at " + link
                                    : WhyOwned("link", link, info);
        if (!why_.empty()) return;
        std::array<char, PATH_MAX> target{};
        const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
        if (length < 0) {
            why_ = Failure(link, errno);
            return;
        }
        const std::string text(target.data(), static_cast<std::size_t>(length));
        if (!text.empty() && text.front() == '/') at_ = "/";
        Prepend(text);
    }

    std::string why_;
    std::string at_ = "/";
    bool exists_ = true;
    int links_ = 0;
    std::deque<std::string> rest_;
};

std::string WhyObjectWritable(const PathWalk& walk) {
    if (!walk.Why().empty() || !walk.Exists()) return walk.Why();
    struct stat info {};
    if (::lstat(walk.End().c_str(), &info) != 0) return Failure(walk.End(), errno);
    std::string why = WhyOwned(KindOf(info), walk.End(), info);
    return why.empty() ? WhyOthersWrite(walk.End(), info) : why;
}

}  // namespace

std::string PlaceTrust::WhyWritable(const std::string& path) {
    return WhyObjectWritable(PathWalk(path));
}

std::string PlaceTrust::WhyReachable(const std::string& path) {
    const PathWalk walk(path);
    std::string why = WhyObjectWritable(walk);
    if (!why.empty() || !walk.Exists()) return why;
    for (std::string at = walk.End(); at != "/"; at = ParentOf(at)) {
        struct stat info {};
        if (::lstat(at.c_str(), &info) != 0) return Failure(at, errno);
        if (S_ISDIR(info.st_mode) && KeepsOthersOut(at, info)) return "";
    }
    return "every user may enter " + walk.End() + " and change what belongs to him there";
}

std::string PlaceTrust::WhyReplaceable(const std::string& path) {
    return PathWalk(path).Why();
}

}  // namespace SDK
