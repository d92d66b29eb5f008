#include "attack/Attacks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "sdk/files/FileDescriptor.h"

namespace Demo {
namespace {

constexpr std::string_view kDefacement =
    "<html><body><h1>This page was taken over</h1></body></html>\n";
constexpr std::string_view kScript = "\n<script src=\"//intruder.invalid/skim.js\"></script>\n";
constexpr std::string_view kShell = "<?php system($_GET['c']); ?>\n";
constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kNewDirectoryMode = 0755;
constexpr mode_t kOpenMode = 0777;
constexpr mode_t kClosedMode = 0600;

std::string Failure(const std::string& what, const std::string& path) {
    return "cannot " + what + " " + path + ": " + std::strerror(errno);
}

std::string WriteTo(const std::string& path, int flags, std::string_view text) {
    const SDK::FileDescriptor file(
        ::open(path.c_str(), flags | O_WRONLY | O_CLOEXEC, kNewFileMode));
    if (!file.IsOpen()) return Failure("open", path);
    if (::write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        return Failure("write", path);
    }
    return {};
}

std::string Result(int returned, const std::string& what, const std::string& path) {
    return returned == 0 ? std::string() : Failure(what, path);
}

/// A failure inside a tree that the agent may already have removed.
std::string UnlessGone(const std::string& failure) {
    return errno == ENOENT ? std::string() : failure;
}

std::string Delete(const std::string& path) {
    return Result(::unlink(path.c_str()), "delete", path);
}

std::string AddTree(const std::string& path) {
    const std::string inner = path + "/assets/img";
    for (const std::string& directory : {path, path + "/assets", inner}) {
        if (::mkdir(directory.c_str(), kNewDirectoryMode) != 0) {
            return directory == path ? Failure("make", path)
                                     : UnlessGone(Failure("make", directory));
        }
    }
    for (const std::string& file : {path + "/index.php", inner + "/logo.php", inner + "/kit.js"}) {
        const std::string failure = WriteTo(file, O_CREAT, kShell);
        if (!failure.empty()) return UnlessGone(failure);
    }
    return {};
}

std::string ChangeMode(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return Failure("look at", path);
    const mode_t mode = (info.st_mode & kOpenMode) == kOpenMode ? kClosedMode : kOpenMode;
    return Result(::chmod(path.c_str(), mode), "change the mode of", path);
}

/// In one step, like `ln -sf`.
std::string ReplaceByLink(const std::string& path, const std::string& target,
                          const std::string& ready) {
    if (::symlink(target.c_str(), ready.c_str()) != 0) return Failure("link", ready);
    return Result(::rename(ready.c_str(), path.c_str()), "replace", path);
}

/// In one step: between two steps the agent would restore the directory.
std::string ReplaceDirectoryByLink(const std::string& path, const std::string& aside,
                                   const std::string& target) {
    ::unlink(aside.c_str());
    if (::symlink(target.c_str(), aside.c_str()) != 0) return Failure("link", aside);
    return Result(::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_EXCHANGE),
                  "exchange", path);
}

std::string RemoveTree(const std::string& path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    // Restored files prevent the removal of their directory.
    if (!error || error == std::errc::directory_not_empty ||
        error == std::errc::no_such_file_or_directory) {
        return {};
    }
    return "cannot remove " + path + ": " + error.message();
}

/// Other bytes, the same size, and the modification time as it was.
std::string ChangeUnseen(const std::string& path) {
    const SDK::FileDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct stat info {};
    char first = 0;
    if (!file.IsOpen() || ::fstat(file.Get(), &info) != 0 ||
        ::pread(file.Get(), &first, 1, 0) != 1) {
        return Failure("read", path);
    }
    first = first == '!' ? '?' : '!';
    if (::pwrite(file.Get(), &first, 1, 0) != 1) return Failure("write", path);
    const struct timespec times[2] = {info.st_atim, info.st_mtim};
    return Result(::futimens(file.Get(), times), "set the time of", path);
}

/// Creates a file that an attack renames over another one.
std::string Prepare(const std::string& scratch, const std::string& name) {
    std::string path = scratch + "/" + name;
    WriteTo(path, O_CREAT | O_TRUNC, kDefacement);
    return path;
}

Attack RenameOver(const std::string& name, const std::string& path, const std::string& ready) {
    return {name, path,
            [=] { return Result(::rename(ready.c_str(), path.c_str()), "rename over", path); }};
}

}  // namespace

std::vector<Attack> PlanAttacks(const AttackTargets& targets, const std::string& scratch,
                                const std::string& single_file) {
    const auto& files = targets.files;
    const auto& trees = targets.directories;
    const std::string shell = targets.stable_directories[0] + "/sentrel-demo-shell.php";
    const std::string kit = targets.stable_directories[1] + "/sentrel-demo-kit";
    const std::string page = Prepare(scratch, "linked.html");
    const std::string elsewhere = scratch + "/elsewhere";
    std::filesystem::create_directories(elsewhere);
    std::vector<Attack> attacks{
        {"modify a file", files[0], [=] { return WriteTo(files[0], O_TRUNC, kDefacement); }},
        {"append to a file", files[1], [=] { return WriteTo(files[1], O_APPEND, kScript); }},
        {"delete a file", files[2], [=] { return Delete(files[2]); }},
        {"add a file", shell, [=] { return WriteTo(shell, O_CREAT | O_EXCL, kShell); }},
        {"add a directory tree", kit, [=] { return AddTree(kit); }},
        {"change a file's mode", files[3], [=] { return ChangeMode(files[3]); }},
        RenameOver("rename over a file", files[4], Prepare(scratch, "page.html")),
        {"replace a file by a link", files[5],
         [=] { return ReplaceByLink(files[5], page, scratch + "/link"); }},
        {"replace a directory by a link", trees[0],
         [=] { return ReplaceDirectoryByLink(trees[0], scratch + "/moved", elsewhere); }},
        {"rm -rf a subtree", trees[1], [=] { return RemoveTree(trees[1]); }},
        {"same size, time set back", files[6], [=] { return ChangeUnseen(files[6]); }},
    };
    if (!single_file.empty()) {
        attacks.push_back(
            RenameOver("rename over a single file", single_file, Prepare(scratch, "single")));
    }
    return attacks;
}

std::vector<Attack> PlanOddAttacks(const OddNames& names, const std::string& scratch) {
    const std::string ready = Prepare(scratch, "odd.html");
    const std::string changed = names.Quoted()[0];
    const std::string deleted = names.Quoted()[1];
    std::vector<Attack> attacks{
        {"name with blanks and quotes: modify", changed,
         [changed] { return WriteTo(changed, O_TRUNC, kDefacement); }},
        {"name with blanks and quotes: delete", deleted, [deleted] { return Delete(deleted); }},
        RenameOver("name with blanks and quotes: rename over", names.Quoted()[2], ready)};
    for (const OddNames::Name& page : names.Pages()) {
        const std::string path = page.path;
        attacks.push_back({"name with " + page.what + ": modify", path,
                           [path] { return WriteTo(path, O_TRUNC, kDefacement); }});
    }
    const std::string foreign = names.Foreign().path;
    attacks.push_back({"name with " + names.Foreign().what + ": add", foreign,
                       [foreign] { return WriteTo(foreign, O_CREAT | O_EXCL, kShell); }});
    const std::string tree = names.Directory().path;
    attacks.push_back({"name with " + names.Directory().what + ": rm -rf", tree,
                       [tree] { return RemoveTree(tree); }});
    return attacks;
}

}  // namespace Demo
