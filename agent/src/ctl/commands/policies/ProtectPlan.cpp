// Decides what the policy shall say of a path, and tells it in words. It must not talk to the
// agent.
#include "ctl/commands/policies/ProtectPlan.h"

#include <sdk/files/PathUtils.h>
#include <sdk/text/StrUtils.h>
#include <sdk/text/Utf8.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "ctl/baselines/DifferenceFormat.h"
#include "ctl/baselines/PolicyPaths.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/output/JsonFields.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace fs = std::filesystem;
using SDK::PathUtils;
using SDK::StrUtils;

namespace {

constexpr char kCopiesParent[] = "/var/backups/morvane";

/// `path` is `root` or lies below it.
bool IsWithin(const std::string& path, const std::string& root) {
    return path == root || StrUtils::BeginsWith(path, PathUtils::WithTrailingSlash(root));
}

void AddOnce(std::vector<std::string>& list, const std::string& text) {
    if (std::find(list.begin(), list.end(), text) == list.end()) list.push_back(text);
}

/// Why the text excludes no subdirectory of `root`; else empty, and `subdir` ends in "/".
std::string TakeSubdir(const std::string& root, std::string given, std::string& subdir) {
    const std::string name = Printable(given);
    if (StrUtils::BeginsWith(given, PathUtils::WithTrailingSlash(root))) {
        given.erase(0, PathUtils::WithTrailingSlash(root).size());
    }
    while (StrUtils::BeginsWith(given, "./")) given.erase(0, 2);
    given = PathUtils::WithoutTrailingSlash(given);
    const std::string framed = "/" + given + "/";
    if (given.empty() || given.front() == '/' || given == "." ||
        framed.find("/../") != std::string::npos || framed.find("/./") != std::string::npos) {
        return "\"" + name + "\" is no subdirectory of " + Printable(root);
    }
    if (given.find_first_of("*?[\\") != std::string::npos || SDK::ToValidUtf8(given) != given) {
        return "\"" + name +
               "\" cannot be excluded: a policy takes neither *, ?, [, \\ nor names "
               "that are not UTF-8";
    }
    std::error_code error;
    const fs::path full = fs::path(root) / given;
    if (fs::exists(full, error) && !fs::is_directory(full, error)) {
        return "\"" + name + "\" is no directory";
    }
    subdir = given + "/";
    return "";
}

std::string TakeOptions(const ProtectOptions& options, ProtectedEntry& entry) {
    for (const std::string& given : options.excluded) {
        std::string subdir;
        std::string wrong = TakeSubdir(CanonicalPath(entry.path), given, subdir);
        if (!wrong.empty()) return wrong;
        AddOnce(entry.subdirs, subdir);
    }
    for (const std::string& suffix : options.suffixes) {
        if (suffix.empty() || suffix.find_first_of("/*?[\\") != std::string::npos) {
            return "\"" + Printable(suffix) + "\" is no ending of file names";
        }
        AddOnce(entry.suffixes, suffix);
    }
    if (!options.backup.empty()) entry.backup_path = PolicyPathOf(options.backup);
    return "";
}

/// Why the path cannot be protected at all.
std::string WhyNotThis(const std::string& path, const ProtectionPolicy& policy) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    const std::string name = Printable(path);
    if (!fs::exists(status)) return "There is no " + name + ".";
    if (!fs::is_directory(status) && !fs::is_regular_file(status)) {
        return name + " is neither a directory nor a file.";
    }
    if (SDK::ToValidUtf8(path) != path) return name + " is not UTF-8, so no policy can name it.";
    const std::string real = CanonicalPath(path);
    for (const char* system : {"/proc", "/sys", "/dev", "/run"}) {
        if (real == "/" || IsWithin(real, system)) return name + " is no place for a site.";
    }
    const std::string own = CanonicalPath(PathUtils::GetInstallationPath());
    if (IsWithin(own, real)) return name + " holds the agent's own installation, " + own + ".";
    for (const ProtectedEntry& other : policy.Entries()) {
        const std::string known = CanonicalPath(other.path);
        if (!other.is_enabled || known == real) continue;
        if (IsWithin(real, known)) {
            return name + " lies within " + Printable(other.path) + ", which is protected already.";
        }
        if (IsWithin(known, real)) {
            return name + " holds " + Printable(other.path) +
                   ", which is protected already. Unprotect that one first.";
        }
    }
    return "";
}

ProtectedEntry EntryFor(const std::string& path, const ProtectionPolicy& policy, bool& is_known) {
    if (auto known = policy.Find(path)) {
        is_known = true;
        return *known;
    }
    std::vector<std::string> taken;
    for (const ProtectedEntry& other : policy.Entries()) taken.push_back(other.backup_path);
    return {path, DefaultBackupPath(kCopiesParent, path, taken)};
}

ProtectPlan Impossible(const std::string& error, int exit_code) {
    ProtectPlan plan;
    plan.error = error;
    plan.exit_code = exit_code;
    return plan;
}

/// The free space where the copies go; negative: not known.
double FreeBytes(std::string path) {
    struct statvfs info {};
    while (::statvfs(path.c_str(), &info) != 0) {
        if (path.empty() || path == "/") return -1;
        path = PathUtils::GetDirFromPath(path);
    }
    return static_cast<double>(info.f_bavail) * static_cast<double>(info.f_frsize);
}

std::string Row(const char* title, const std::string& text) {
    return StrUtils::Format("  %-9s %s\n", title, text.c_str());
}

std::string FormatExclusions(const ProtectPlan& plan) {
    std::string text;
    for (const std::string& subdir : plan.entry.subdirs) {
        const auto known =
            std::find_if(plan.kind.written.begin(), plan.kind.written.end(),
                         [&](const WrittenDirectory& written) { return written.path == subdir; });
        const std::string why = known == plan.kind.written.end() ? "" : "  (" + known->why + ")";
        text += Row(text.empty() ? "left out" : "", Printable(subdir) + why);
    }
    for (const std::string& suffix : plan.entry.suffixes) {
        text += Row(text.empty() ? "left out" : "", "names that end in " + Printable(suffix));
    }
    return text;
}

std::string FormatOthers(const ProtectPlan& plan, const ProtectionPolicy& policy) {
    std::string text;
    for (const ProtectedEntry& other : policy.Entries()) {
        if (!other.is_enabled || CanonicalPath(other.path) == CanonicalPath(plan.entry.path)) {
            continue;
        }
        text += Row(text.empty() ? "also" : "", Printable(other.path) + " stays protected");
    }
    if (!policy.IsOn() && !text.empty()) {
        text += "note: the protection is off now; this switches it on for all of these paths.\n";
    }
    return text;
}

std::string FormatFindings(const ProtectPlan& plan) {
    std::vector<std::string> findings = SurveyPlace(plan.entry.path);
    findings.insert(findings.end(), plan.survey.findings.begin(), plan.survey.findings.end());
    const double free = FreeBytes(plan.entry.backup_path);
    if (!plan.is_known && free >= 0 && static_cast<double>(plan.survey.bytes) > free) {
        findings.push_back("the copies need " +
                           FormatBytes(static_cast<double>(plan.survey.bytes)) + ", and only " +
                           FormatBytes(free) + " are free");
    }
    if (!plan.kind.advice.empty()) findings.push_back(plan.kind.advice);
    std::string text;
    for (const std::string& finding : findings) text += "note: " + finding + "\n";
    return text;
}

}  // namespace

std::string PolicyPathOf(const std::string& given) {
    std::error_code error;
    fs::path path = fs::absolute(PathUtils::WithoutTrailingSlash(given), error).lexically_normal();
    if (!path.has_filename()) path = path.parent_path();
    if (!path.has_parent_path() || path == "/") return "/";
    return PathUtils::WithTrailingSlash(CanonicalPath(path.parent_path().string())) +
           path.filename().string();
}

ProtectPlan MakePlan(const ProtectOptions& options, const ProtectionPolicy& policy) {
    const std::string path = PolicyPathOf(options.path);
    std::string wrong = WhyNotThis(path, policy);
    if (!wrong.empty()) return Impossible(wrong, kExitRejected);
    ProtectPlan plan;
    plan.entry = EntryFor(path, policy, plan.is_known);
    const ProtectedEntry before = plan.entry;
    wrong = TakeOptions(options, plan.entry);
    if (!wrong.empty()) return Impossible(wrong + ".", kExitUsage);
    plan.kind = RecogniseSite(CanonicalPath(path));
    if (!plan.is_known) {
        for (const WrittenDirectory& one : plan.kind.written) AddOnce(plan.entry.subdirs, one.path);
    }
    plan.entry.is_enabled = true;
    plan.entry.auto_restore = !options.report_only;
    plan.is_unchanged = plan.is_known && policy.IsOn() && plan.entry == before;
    plan.survey = SurveyTree(
        {CanonicalPath(path), plan.entry.subdirs, plan.entry.suffixes, plan.entry.backup_path});
    if (!plan.survey.error.empty()) {
        return Impossible("Cannot look at " + Printable(path) + ": " + plan.survey.error + ".",
                          kExitFailed);
    }
    return plan;
}

std::string FormatPlan(const ProtectPlan& plan, const ProtectionPolicy& policy) {
    const auto files = static_cast<long long>(plan.survey.files);
    const auto directories = static_cast<long long>(plan.survey.directories);
    const std::string kind = plan.kind.name.empty() ? "" : plan.kind.name + ", ";
    const double free = FreeBytes(plan.entry.backup_path);
    return (plan.is_known ? "Change the protection of " : "Protect ") +
           Coloured(Printable(plan.entry.path), Colour::kBold) + "\n" +
           Row("contents", kind + Counted(files, "file") + ", " +
                               (directories == 1 ? "1 directory"
                                                 : std::to_string(directories) + " directories") +
                               ", " + FormatBytes(static_cast<double>(plan.survey.bytes))) +
           Row("changes", plan.entry.auto_restore ? "are undone and raise an alarm"
                                                  : "raise an alarm and are not undone") +
           Row("copies", "in " + Printable(plan.entry.backup_path) +
                             (free < 0 ? "" : " (" + FormatBytes(free) + " free)")) +
           FormatExclusions(plan) + FormatOthers(plan, policy) + FormatFindings(plan);
}

}  // namespace Ctl
