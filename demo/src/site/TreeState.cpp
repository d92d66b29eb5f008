#include "site/TreeState.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <optional>
#include <system_error>

#include "sdk/files/FileUtils.h"

namespace Demo {
namespace {

constexpr mode_t kPermissionBits = 07777;

ObjectState::Kind KindOf(mode_t mode) {
    if (S_ISREG(mode)) return ObjectState::Kind::kFile;
    if (S_ISDIR(mode)) return ObjectState::Kind::kDirectory;
    if (S_ISLNK(mode)) return ObjectState::Kind::kLink;
    return ObjectState::Kind::kOther;
}

/// Everything but the content; none when the object is missing.
std::optional<ObjectState> Describe(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return std::nullopt;
    ObjectState state;
    state.kind = KindOf(info.st_mode);
    state.mode = info.st_mode & kPermissionBits;
    state.uid = info.st_uid;
    state.gid = info.st_gid;
    if (state.kind != ObjectState::Kind::kDirectory) {
        state.size = info.st_size;
        state.mtime = info.st_mtime;
    }
    return state;
}

std::string ContentOf(const std::string& path, ObjectState::Kind kind) {
    std::string content;
    if (kind == ObjectState::Kind::kFile) {
        if (SDK::FileUtils::GetFileSha256(path, content, LONG_MAX) != 0) return "unreadable";
    } else if (kind == ObjectState::Kind::kLink) {
        char target[PATH_MAX];
        const ssize_t length = ::readlink(path.c_str(), target, sizeof(target));
        if (length > 0) content.assign(target, static_cast<std::size_t>(length));
    }
    return content;
}

/// Calls `visit(relative path)` for `path` and all below it until it returns false.
template <typename Visit>
void Walk(const std::string& path, const std::string& relative, ObjectState::Kind kind,
          Visit& visit) {
    if (!visit(relative) || kind != ObjectState::Kind::kDirectory) return;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(path + relative, error), end;
         !error && entry != end; entry.increment(error)) {
        const std::string name = relative + "/" + entry->path().filename().string();
        const auto state = Describe(path + name);
        if (state) Walk(path, name, state->kind, visit);
    }
}

std::string CompareObject(const ObjectState& before, const std::string& path) {
    const auto now = Describe(path);
    if (!now) return "is missing";
    if (now->kind != before.kind) return "is of another kind";
    if (now->size != before.size) return "has another size";
    if (now->mtime != before.mtime) return "has another modification time";
    if (before.kind != ObjectState::Kind::kLink && now->mode != before.mode) {
        return "has another mode";
    }
    if (now->uid != before.uid || now->gid != before.gid) return "has another owner";
    if (ContentOf(path, before.kind) != before.content) return "has another content";
    return {};
}

}  // namespace

TreeState TakeState(const std::string& path) {
    TreeState tree;
    const auto root = Describe(path);
    if (!root) return tree;
    auto keep = [&](const std::string& relative) {
        auto state = Describe(path + relative);
        if (!state) return true;
        state->content = ContentOf(path + relative, state->kind);
        tree.emplace(relative, *state);
        return true;
    };
    Walk(path, "", root->kind, keep);
    return tree;
}

std::string FindDifference(const TreeState& before, const std::string& path) {
    for (const auto& [relative, state] : before) {
        const std::string difference = CompareObject(state, path + relative);
        if (!difference.empty()) return path + relative + " " + difference;
    }
    const auto root = Describe(path);
    if (!root) return {};
    std::string added;
    auto find_added = [&](const std::string& relative) {
        if (added.empty() && before.count(relative) == 0) added = relative.empty() ? "/" : relative;
        return added.empty();
    };
    Walk(path, "", root->kind, find_added);
    return added.empty() ? added : path + (added == "/" ? "" : added) + " should not be there";
}

}  // namespace Demo
