// Finds what an operator should know before a tree is protected. It must not change anything, nor
// judge policies (the protection module does).
#include "ctl/protect/TreeSurvey.h"

#include <baseline/TreeWalk.h>
#include <sdk/files/PathAnchor.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sdk/text/StrUtils.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <set>

#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::StrUtils;

namespace {

constexpr off_t kComparedInBackground = 10L * 1024 * 1024;
constexpr off_t kRestoredByRsync = 256L * 1024 * 1024;
constexpr std::size_t kCopyReserve = 64;  ///< for the names of temporary copies

/// Objects with the same peculiarity; the first one as an example.
class Hits {
  public:
    explicit Hits(std::string meaning) : meaning_(std::move(meaning)) {}
    void Add(const std::string& path) {
        if (count_++ == 0) example_ = path;
    }
    void AppendTo(std::vector<std::string>& findings) const {
        if (count_ == 0) return;
        findings.push_back(meaning_ + ": " + std::to_string(count_) +
                           (count_ == 1 ? ", " : ", such as ") + Printable(example_));
    }

  private:
    const std::string meaning_;
    std::size_t count_ = 0;
    std::string example_;
};

class Survey {
  public:
    explicit Survey(const SurveyRequest& request) : request_(request) {}

    bool IsExcluded(const std::string& path, bool is_directory) const {
        const std::string name = is_directory ? path + "/" : path;
        const auto begins = [&](const std::string& start) {
            return StrUtils::BeginsWith(name, start);
        };
        const auto ends = [&](const std::string& end) { return StrUtils::EndsWith(path, end); };
        return std::any_of(request_.excluded.begin(), request_.excluded.end(), begins) ||
               (!is_directory &&
                std::any_of(request_.suffixes.begin(), request_.suffixes.end(), ends));
    }

    void Count(const Baseline::WalkedObject& object) {
        if (object.path.empty()) device_ = object.info.st_dev;
        if (object.IsDirectory()) {
            ++result_.directories;
            if (object.info.st_dev != device_) mounts_.Add(object.path);
            if (object.name == ".git") repositories_.Add(object.path);
        } else {
            ++result_.files;
            if (S_ISREG(object.info.st_mode)) CountFile(object);
            if (S_ISLNK(object.info.st_mode)) CountLink(object);
            if (!S_ISREG(object.info.st_mode) && !S_ISLNK(object.info.st_mode)) {
                special_.Add(object.path);
            }
        }
        CountName(object);
    }

    SurveyResult Result() && {
        for (const Hits* hits : {&mounts_, &repositories_, &outside_, &special_, &logs_, &odd_,
                                 &dotted_, &long_, &linked_, &large_, &huge_}) {
            hits->AppendTo(result_.findings);
        }
        return std::move(result_);
    }

  private:
    void CountFile(const Baseline::WalkedObject& object) {
        result_.bytes += static_cast<std::uint64_t>(object.info.st_size);
        if (object.info.st_size > kRestoredByRsync) {
            huge_.Add(object.path);
        } else if (object.info.st_size > kComparedInBackground) {
            large_.Add(object.path);
        }
        if (object.info.st_nlink > 1) linked_.Add(object.path);
        if (StrUtils::EndsWith(object.name, ".log") || object.name == "error_log") {
            logs_.Add(object.path);
        }
    }

    void CountLink(const Baseline::WalkedObject& object) {
        std::array<char, PATH_MAX> target{};
        const ssize_t length = ::readlinkat(object.directory->Get(), object.name.c_str(),
                                            target.data(), target.size());
        if (length <= 0 || target.front() != '/') return;
        const std::string to(target.data(), static_cast<std::size_t>(length));
        if (!StrUtils::BeginsWith(to, SDK::PathUtils::WithTrailingSlash(request_.path))) {
            outside_.Add(object.path);
        }
    }

    void CountName(const Baseline::WalkedObject& object) {
        if (object.path.empty()) return;
        if (object.name.back() == '.') dotted_.Add(object.path);
        const std::string plain = Printable(object.name);
        if (plain != object.name && object.name.find('\\') == std::string::npos) {
            odd_.Add(object.path);
        }
        const std::size_t length =
            request_.copies.size() + request_.path.size() + object.path.size() + kCopyReserve;
        if (length >= PATH_MAX) long_.Add(object.path);
    }

    const SurveyRequest& request_;
    dev_t device_ = 0;
    SurveyResult result_;
    Hits mounts_{"directories with a mount of their own, protected as it is mounted now"};
    Hits repositories_{"Git repositories, which visitors may be able to read"};
    Hits outside_{"links out of the tree, whose targets are not protected"};
    Hits special_{"sockets, pipes and devices"};
    Hits logs_{"files that look like logs (left alone with --ignore .log or --exclude)"};
    Hits odd_{"names with control characters or bytes that are not UTF-8"};
    Hits dotted_{"names that end in a dot, whose changes are found within a minute"};
    Hits long_{"paths so long that they may get no copy"};
    Hits linked_{
        "files with several hard links; changes through one outside of the tree are found "
        "within a minute"};
    Hits large_{"files larger than 10 MiB, compared in the background"};
    Hits huge_{"files larger than 256 MiB, slow to restore"};
};

struct FileSystem {
    long magic;
    const char* warning;
};

constexpr char kNetwork[] = "changes that other hosts make there are not seen at once";
constexpr std::array<FileSystem, 11> kFileSystems = {{
    {0x6969, "NFS"},
    {0xFF534D42, "CIFS"},
    {0xFE534D42, "SMB"},
    {0x517B, "SMB"},
    {0x65735546, "FUSE"},
    {0x01021997, "9P"},
    {0x00C36400, "Ceph"},
    {0x5346414F, "AFS"},
    {0x47504653, "GPFS"},
    {0x0BD00BD0, "Lustre"},
    {0x01161970, "GFS2"},
}};

}  // namespace

SurveyResult SurveyTree(const SurveyRequest& request) {
    struct stat info {};
    SurveyResult failed;
    if (::lstat(request.path.c_str(), &info) != 0) {
        failed.error = std::strerror(errno);
        return failed;
    }
    const bool is_directory = S_ISDIR(info.st_mode);
    const auto anchor = SDK::PathAnchor::Open(
        is_directory ? request.path : SDK::PathUtils::GetDirFromPath(request.path));
    if (anchor == nullptr) {
        failed.error = std::strerror(errno);
        return failed;
    }
    Baseline::TreeRoot root{anchor.get()};
    if (!is_directory) root.file = request.path.substr(request.path.rfind('/') + 1);
    Baseline::TreeWalk walk(root);
    Survey survey(request);
    while (walk.Next()) {
        const Baseline::WalkedObject& object = walk.Object();
        if (!object.path.empty() && survey.IsExcluded(object.path, object.IsDirectory())) {
            walk.SkipBelow();
            continue;
        }
        survey.Count(object);
    }
    return std::move(survey).Result();
}

std::vector<std::string> SurveyPlace(const std::string& path) {
    std::vector<std::string> findings;
    struct statfs info {};
    if (::statfs(path.c_str(), &info) == 0) {
        const auto* known =
            std::find_if(kFileSystems.begin(), kFileSystems.end(), [&](const FileSystem& one) {
                return static_cast<unsigned>(one.magic) == static_cast<unsigned>(info.f_type);
            });
        if (known != kFileSystems.end()) {
            findings.push_back(std::string("it lies on a file system of the kind ") +
                               known->warning + ": " + kNetwork);
        }
    }
    return findings;
}

}  // namespace Ctl
