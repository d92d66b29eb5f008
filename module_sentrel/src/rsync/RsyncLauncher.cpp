// Decides how a command of bin/rsync is carried out. It must not build command lines nor judge
// their results (RsyncCopies does), nor hold directories (RuleAnchors does). Any thread.
#include "rsync/RsyncLauncher.h"

#include <fcntl.h>
#include <framework/ConfigManager.h>
#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/restore/ObjectRestorer.h>
#include <sdk/restore/TreeRestorer.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/PathText.h"
#include "base/RsyncPaths.h"
#include "places/RuleAnchors.h"
#include "progress/BackupProgress.h"
#include "rsync/RsyncExclusions.h"
#include "rsync/RsyncLine.h"

namespace Engine {

namespace {

using SDK::CommandAnswer;
using SDK::ObjectRestorer;
using Entry = SDK::PathAnchor::Entry;

constexpr const char* kSwitch = "restore_in_process";
constexpr const char* kNoScratch = "cannot make the directory for unfinished files";
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// rsync's own exit codes: the caller judges both alike.
constexpr int kPartialTransfer = 23;
constexpr int kInterrupted = 20;

CommandAnswer Failure(const std::string& why) {
    CommandAnswer answer;
    answer.kind = CommandAnswer::Kind::kDone;
    answer.exit_code = kPartialTransfer;
    answer.output = why;
    return answer;
}

CommandAnswer Failed(const std::string& step) {
    return Failure(step + ": " + std::strerror(errno));
}

CommandAnswer Done(const ObjectRestorer::Result& result) {
    CommandAnswer answer;
    answer.kind = CommandAnswer::Kind::kDone;
    switch (result.outcome) {
        case ObjectRestorer::Outcome::kRestored:
            break;
        case ObjectRestorer::Outcome::kInterrupted:
            answer.exit_code = kInterrupted;
            answer.output = "interrupted";
            break;
        default:
            answer.exit_code = kPartialTransfer;
            answer.output = "cannot " + result.step + ": " + std::strerror(result.error);
            break;
    }
    return answer;
}

/// The path of `name` in an inherited directory. Inherited descriptors are numbered from 3 on.
std::string PlaceOf(std::size_t inherited, const std::string& name) {
    constexpr std::size_t kFirst = 3;
    return "/proc/self/fd/" + std::to_string(kFirst + inherited) + "/" + name;
}

SDK::FileDescriptor OpenMade(int parent, const std::string& name) {
    if (::mkdirat(parent, name.c_str(), S_IRWXU) != 0 && errno != EEXIST) return {};
    return SDK::FileDescriptor(::openat(parent, name.c_str(), kDirectoryFlags));
}

/// The directory `path` among the copies; makes it and what is missing above it.
SDK::FileDescriptor MakeCopyDirectory(const AnchoredRule& rule, const std::string& path) {
    SDK::FileDescriptor at = rule.OpenCopyDirectory("");
    std::size_t begin = 0;
    while (at.IsOpen() && begin < path.size()) {
        const std::size_t slash = std::min(path.find('/', begin), path.size());
        const std::string name = path.substr(begin, slash - begin);
        begin = slash + 1;
        if (!name.empty()) at = OpenMade(at.Get(), name);
    }
    return at;
}

CommandAnswer Run(const RsyncLine& line, const std::string& program, SDK::FileDescriptor source,
                  const std::string& source_name, SDK::FileDescriptor target,
                  const std::string& target_name, SDK::FileDescriptor scratch,
                  SDK::FileDescriptor replaced = {}) {
    CommandAnswer answer;
    const auto inherit = [&answer](SDK::FileDescriptor descriptor, const std::string& name) {
        if (!descriptor.IsOpen()) return std::string();
        answer.inherited.push_back(std::move(descriptor));
        return PlaceOf(answer.inherited.size() - 1, name);
    };
    const std::string from = inherit(std::move(source), source_name);
    const std::string to = inherit(std::move(target), target_name);
    const std::string unfinished = inherit(std::move(scratch), "");
    answer.arguments = line.With(program, unfinished, from, to, inherit(std::move(replaced), ""));
    return answer;
}

/// rsync copies from the held directory to its held copy.
CommandAnswer AnswerBackup(const RsyncLine& line, const std::string& program,
                           const AnchoredRule& rule,
                           const RsyncLauncher::OpenReplaced& open_replaced) {
    const bool is_file = rule.IsFile();
    const std::string directory = is_file ? ParentPath(rule.RootPath()) : rule.RootPath();
    SDK::FileDescriptor source =
        is_file ? rule.Parent()->OpenDirectory("") : rule.OpenLiveDirectory(rule.RootPath());
    if (!source.IsOpen()) return Failed("cannot open " + directory);
    SDK::FileDescriptor target = MakeCopyDirectory(rule, directory);
    if (!target.IsOpen()) return Failed("cannot make the copy of " + directory);
    // rsync resolves the path of a scratch directory anew four times a file. What an ended rsync
    // leaves among the copies of a directory its next run deletes, before anything is approved.
    SDK::FileDescriptor scratch = is_file ? rule.OpenScratch() : SDK::FileDescriptor();
    if (is_file && !scratch.IsOpen()) return Failed(kNoScratch);
    SDK::FileDescriptor replaced = open_replaced(rule);
    if (!replaced.IsOpen() && errno != 0) return Failed("cannot make a place for replaced copies");
    const std::string name = is_file ? FileName(rule.RootPath()) : std::string();
    return Run(line, program, std::move(source), "./" + name, std::move(target), "",
               std::move(scratch), std::move(replaced));
}

/// rsync restores a file, link or special file.
CommandAnswer AnswerObjectByRsync(const RsyncLine& line, const std::string& program,
                                  const AnchoredRule& rule, SDK::FileDescriptor scratch) {
    Entry copy = rule.Copy(line.target);
    Entry live = rule.Live(line.target);
    if (!copy.IsOpen() || !live.IsOpen()) return Failed("cannot open the directory");
    // rsync would copy into a directory that stands in the object's place.
    struct stat info {};
    if (rule.StatLive(line.target, info) == 0 && S_ISDIR(info.st_mode) &&
        SDK::DirUtils::DeleteAt(live.directory.Get(), live.name) != 0) {
        return Failed("cannot remove the directory in its place");
    }
    return Run(line, program, std::move(copy.directory), copy.name, std::move(live.directory),
               live.name, std::move(scratch));
}

CommandAnswer AnswerDirectoryByRsync(const RsyncLine& line, const std::string& program,
                                     const AnchoredRule& rule, SDK::FileDescriptor scratch) {
    SDK::FileDescriptor live = rule.OpenLiveDirectory(line.target);
    if (!live.IsOpen()) {
        const Entry entry = rule.Live(line.target);
        if (entry.IsOpen()) {
            ::unlinkat(entry.directory.Get(), entry.name.c_str(), 0);
            live = OpenMade(entry.directory.Get(), entry.name);
        }
    }
    SDK::FileDescriptor copy = rule.OpenCopyDirectory(line.target);
    if (!copy.IsOpen() || !live.IsOpen()) return Failed("cannot open the directory");
    return Run(line, program, std::move(copy), "", std::move(live), "", std::move(scratch));
}

/// For what is neither file nor link, and where the configuration wants rsync to restore.
CommandAnswer AnswerRestoreByRsync(const RsyncLine& line, const std::string& program,
                                   const AnchoredRule& rule, const BackupProgress& progress,
                                   bool is_directory) {
    // rsync would go on behind the mount.
    if (is_directory && !rule.UnusualMounts().empty()) {
        return Failure(rule.UnusualMounts().front().text);
    }
    SDK::FileDescriptor scratch = rule.OpenScratch();
    if (!scratch.IsOpen()) return Failed(kNoScratch);
    if (!is_directory) return AnswerObjectByRsync(line, program, rule, std::move(scratch));
    // rsync knows nothing of the objects that could not be copied, and would delete them.
    if (progress.HasOpenIn(rule.Rule(), line.target)) {
        return Failure("the directory holds objects without a copy");
    }
    return AnswerDirectoryByRsync(line, program, rule, std::move(scratch));
}

CommandAnswer RestoreDirectory(const RsyncLine& line, const AnchoredRule& rule,
                               const BackupProgress& progress, const RsyncExclusions& exclusions) {
    const std::string directory = SDK::PathUtils::WithoutTrailingSlash(line.target);
    const auto shield = [&](const std::string& below, bool is_directory) {
        const std::string path = directory + "/" + below;
        return exclusions.Match(path, is_directory) || progress.IsOpen(rule.Rule(), path);
    };
    // The protected directory itself is never opened by its name: others may have changed it.
    const Entry live = directory == rule.RootPath() ? Entry{rule.OpenLiveDirectory(directory), "."}
                                                    : rule.Live(directory);
    if (!live.IsOpen()) return Failed("cannot open the directory");
    // Reading a whole large site would delay every other page, and anybody can cause it by changing
    // the mode of its top again and again.
    return Done(SDK::TreeRestorer::Restore(rule.Copy(directory), live, shield,
                                           SDK::TreeRestorer::Comparison::kChanged,
                                           rule.Staging()));
}

CommandAnswer AnswerRestore(const RsyncLine& line, const std::string& program, RuleAnchors& anchors,
                            const BackupProgress& progress,
                            std::shared_ptr<const AnchoredRule> rule) {
    struct stat copy {};
    if (rule->StatCopy(line.target, copy) != 0) return Failed("no backup copy");
    const bool is_directory = S_ISDIR(copy.st_mode);
    std::string_view below;
    const bool is_root = rule->Below(line.target, below) && below.empty() && !rule->IsFile();
    if (is_root && rule->Root() == nullptr) {
        if (!is_directory) return Failure("the copy is no directory");
        RulePlaces made = anchors.MakeRoot(rule);
        if (!made) return Failure(made.problem);
        rule = std::move(made.anchors);
    }
    const RsyncExclusions exclusions(line.exclusions);
    if (RsyncLauncher::RestoresInProcess()) {
        if (is_directory) return RestoreDirectory(line, *rule, progress, exclusions);
        if (!exclusions.Match(line.target, false)) {
            const Entry live = rule->Live(line.target);
            if (!live.IsOpen()) return Failed("cannot open the directory");
            const ObjectRestorer::Result result = ObjectRestorer::Restore(
                rule->Copy(line.target), live, ObjectRestorer::kMaxSize, rule->Staging());
            if (result.outcome != ObjectRestorer::Outcome::kUnusual) return Done(result);
        }
    }
    return AnswerRestoreByRsync(line, program, *rule, progress, is_directory);
}

}  // namespace

RsyncLauncher::RsyncLauncher(RuleAnchors& anchors, const BackupProgress& progress,
                             OpenReplaced open_replaced)
    : anchors_(anchors), progress_(progress), open_replaced_(std::move(open_replaced)) {}

RsyncLauncher::~RsyncLauncher() {
    if (!installed_.empty()) SDK::ExecuteCmdUtils::SetProgramHandler(installed_, nullptr);
}

void RsyncLauncher::Install() {
    const std::string program = RsyncPaths::Program(SDK::PathUtils::GetInstallationPath());
    const std::lock_guard<std::mutex> lock(mutex_);
    if (program == installed_) return;
    SDK::ExecuteCmdUtils::SetProgramHandler(installed_, nullptr);
    SDK::ExecuteCmdUtils::SetProgramHandler(
        program, [this](const std::vector<std::string>& arguments) { return Answer(arguments); });
    installed_ = program;
}

bool RsyncLauncher::RestoresInProcess() {
    const Json::Value value = Framework::ConfigManager::GetInstance().Section("sentrel")[kSwitch];
    return !value.isBool() || value.asBool();
}

CommandAnswer RsyncLauncher::Answer(const std::vector<std::string>& arguments) const {
    const std::optional<RsyncLine> line = RsyncLine::Of(arguments);
    if (!line) return {};
    RulePlaces places = line->is_backup ? anchors_.OfBackup(line->source, line->target)
                                        : anchors_.OfRestore(line->source, line->target);
    if (!places) return places.problem.empty() ? CommandAnswer() : Failure(places.problem);
    if (line->is_backup) {
        return AnswerBackup(*line, arguments.front(), *places.anchors, open_replaced_);
    }
    return AnswerRestore(*line, arguments.front(), anchors_, progress_, std::move(places.anchors));
}

}  // namespace Engine
