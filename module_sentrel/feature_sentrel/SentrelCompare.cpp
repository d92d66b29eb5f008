// Looks at changed files and their backup copies, and describes how they differ. Reads only, never
// writes; nothing here decides what is done about a difference. Inotify task's thread.
#include <ContentDiff.h>
#include <ProtectedWay.h>
#include <SentrelInotifyTask.h>
#include <SentrelUtils.h>
#include <sdk/DirUtils.h>
#include <sdk/FileUtils.h>
#include <sdk/Log.h>
#include <sdk/PathUtils.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace Engine {

namespace {

namespace fs = std::filesystem;

void AppendSlash(std::string& path) {
    if (path.empty() || path.back() != '/') path += '/';
}

/// The text of one side of the attribute difference; `label` is "before" or " after".
std::string DescribeAttributes(const char* label, const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::string(label) + "(uid: gid: mode: size:)";
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "%s(uid:%u gid:%u mode:%s size:%ld)", label,
                  info.st_uid, info.st_gid, SDK::FileUtils::StModeToStr(info.st_mode).c_str(),
                  static_cast<long>(info.st_size));
    return text.data();
}

bool DigestOf(const std::string& path, std::string& digest) {
    if (SDK::FileUtils::GetFileSha256(path, digest, kDigestLimit) == 0) return true;
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file %s sha256 failed.", path);
    return false;
}

// Size, time, mode and content alone would let a chown pass. As another user than root the agent
// can neither keep nor put back owners: its copies are its own.
bool HasOtherOwner(const std::string& file, const struct stat& found,
                   const SentrelInotifyTask::BackupFileInfo& info) {
    if (::geteuid() != 0 || (found.st_uid == info.uid && found.st_gid == info.gid)) return false;
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s owner (%u:%u) not matched with (%u:%u). ", file,
            found.st_uid, found.st_gid, info.uid, info.gid);
    return true;
}

}  // namespace

bool SentrelInotifyTask::HandleEventBuildStr(std::string event_path, std::string moveto_file,
                                             bool is_dir, unsigned int mask, std::string& file1,
                                             std::string& file2) {
    std::string directory;
    if (!event_path.empty()) {
        file1 = std::move(event_path);
        if (file1.back() == '.') return false;
        if (is_dir) {
            AppendSlash(file1);
            directory = file1.substr(0, file1.size() - 1);
        }
    }
    if (!moveto_file.empty()) {
        file2 = std::move(moveto_file);
        if (is_dir) AppendSlash(file2);
    }
    if ((mask & IN_DELETE) != 0) {
        const std::string parent = SDK::PathUtils::GetDirFromPath(directory);
        if (!parent.empty() && !SDK::DirUtils::IsDir(parent)) {
            SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Parent dir %s maybe deleted, filePath:%s.", parent,
                    file1);
            return false;
        }
    }
    return true;
}

bool SentrelInotifyTask::GetBackupFileInfo(const std::string& path, const SentrelDirRule& rule,
                                           bool& exists, BackupFileInfo& info) {
    exists = false;
    const std::string backup = rule.backup_path + path;
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "compare file:%s, comparepath:%s", path, backup);
    struct stat found {};
    if (::lstat(WithoutTrailingSlash(backup).c_str(), &found) != 0) {
        const int error = errno;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "file:%s  info:%d", backup, error);
        return true;
    }
    exists = true;
    info.size = found.st_size;
    info.mtime = found.st_mtime;
    info.mode = SDK::FileUtils::StModeToStr(found.st_mode);
    info.uid = found.st_uid;
    info.gid = found.st_gid;
    info.path = WithoutTrailingSlash(backup);
    if (!S_ISREG(found.st_mode) || ::access(info.path.c_str(), R_OK) == 0) return true;
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "Get file %s sha256 failed.", info.path);
    return false;
}

bool SentrelInotifyTask::DiffersFromBackup(const std::string& file, const BackupFileInfo& info) {
    struct stat found {};
    if (::lstat(WithoutTrailingSlash(file).c_str(), &found) != 0) return true;
    // A file system gives directories a size of its own, which no restore can make equal.
    if (!S_ISDIR(found.st_mode) && found.st_size != info.size) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s size (%u) not matched with (%u). ", file,
                static_cast<unsigned int>(found.st_size), static_cast<unsigned int>(info.size));
        return true;
    }
    if (found.st_mtime != info.mtime) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s mtime (%d) not matched with (%d). ", file,
                static_cast<int>(found.st_mtime), static_cast<int>(info.mtime));
        return true;
    }
    const std::string mode = SDK::FileUtils::StModeToStr(found.st_mode);
    if (mode != info.mode) {
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s attr (%s) not matched with (%s). ", file, mode,
                info.mode);
        return true;
    }
    if (S_ISDIR(found.st_mode)) return HasOtherOwner(file, found, info);
    // Only now: of most changes the size or the time tells, and a large page must not wait for the
    // digest of its copy.
    std::string digest;
    std::string copy_digest;
    SDK::FileUtils::GetFileSha256(file, digest, kDigestLimit);  // unreadable: an empty digest
    if (DigestOf(info.path, copy_digest) && digest == copy_digest) {
        return HasOtherOwner(file, found, info);
    }
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "File %s sha256 (%s) not matched with (%s). ", file, digest,
            copy_digest);
    return true;
}

/// A directory that took the place of its like within a second may look the same from outside. What
/// it holds is announced by itself, what it lacks is not. An older copy may still have what the
/// policy excludes by now, and no restore brings that.
bool SentrelInotifyTask::LacksContent(const SentrelDirRule& rule, const std::string& file) {
    const std::string directory = WithoutTrailingSlash(file) + "/";
    const std::string copy = rule.backup_path + directory;
    std::error_code error;
    if (!SDK::DirUtils::IsDir(copy)) return false;
    fs::directory_iterator entry(copy, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string path = directory + entry->path().filename().string();
        struct stat found {};
        if (path.back() == '.' || ::lstat(path.c_str(), &found) == 0 || errno != ENOENT) continue;
        std::error_code unknown;
        const bool is_directory = entry->symlink_status(unknown).type() == fs::file_type::directory;
        if (IsIgnored(rule, RulePath(rule), is_directory ? path + "/" : path)) continue;
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Dir %s lacks %s. ", file, path);
        return true;
    }
    return false;
}

std::string SentrelInotifyTask::HandleFileAttrDiff(const std::string& backup,
                                                   const std::string& changed) {
    std::string diff_attr = DescribeAttributes("before", backup);
    diff_attr += DescribeAttributes(" after", changed);
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "backup: %s, changed:%s, diff_attr:%s.", backup, changed,
            diff_attr);
    return diff_attr;
}

std::string SentrelInotifyTask::HandleFileContentDiff(const std::string& backup,
                                                      const std::string& changed) {
    return ContentDiff(backup, changed).Take();
}

}  // namespace Engine
