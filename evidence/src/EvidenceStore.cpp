// Owns the directory of kept contents and its limits. It must not decide what is evidence (the
// sender of alarms does).
#include "evidence/EvidenceStore.h"

#include <fcntl.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/Sha256.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <limits>
#include <set>
#include <unordered_map>
#include <utility>

#include "EvidenceList.h"

namespace Evidence {

namespace {

constexpr mode_t kPrivate = 0700;
constexpr std::int64_t kDay = 24L * 3600;
constexpr std::int64_t kCleanUpSeconds = 3600;
constexpr std::uint64_t kMostListBytes = 64ULL * 1024 * 1024;
/// So much of a limit remains after a clean-up, so that not every Keep needs one.
constexpr double kRemains = 0.9;

/// Makes the agent and a command that removes take turns.
class Turn {
  public:
    explicit Turn(int directory) : directory_(directory) { ::flock(directory_, LOCK_EX); }
    ~Turn() { ::flock(directory_, LOCK_UN); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

  private:
    const int directory_;
};

/// At most `most` bytes from the beginning. False when the object cannot be read now: a lease, a
/// pipe, no permission.
bool Read(int object, const struct stat& info, std::uint64_t most, std::string& content) {
    if (S_ISLNK(info.st_mode)) {
        content.resize(PATH_MAX);
        const ssize_t length = ::readlinkat(object, "", content.data(), content.size());
        if (length >= 0) content.resize(static_cast<std::size_t>(length));
        return length >= 0;
    }
    const std::string link = "/proc/self/fd/" + std::to_string(object);
    const SDK::FileDescriptor file(
        ::open(link.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.IsOpen()) return false;
    content.resize(std::min<std::uint64_t>(static_cast<std::uint64_t>(info.st_size), most));
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t size = ::pread(file.Get(), content.data() + done, content.size() - done,
                                     static_cast<off_t>(done));
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) return false;
        if (size == 0) break;
        done += static_cast<std::size_t>(size);
    }
    content.resize(done);
    return true;
}

std::string IdOf(const std::string& content) {
    SDK::Sha256 digest;
    digest.Update(content.data(), content.size());
    return digest.Hex();
}

std::int64_t Now() {
    return std::time(nullptr);
}

}  // namespace

EvidenceStore::EvidenceStore(std::string directory, Limits limits)
    : directory_(std::move(directory)), limits_(limits) {}

bool EvidenceStore::Prepare() {
    struct stat info {};
    if (opened_.IsOpen() && ::fstat(opened_.Get(), &info) == 0 && info.st_nlink > 0) return true;
    if (SDK::DirUtils::MakeDirs(directory_, kPrivate) != 0) return false;
    opened_.Reset(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened_.IsOpen() || ::fchmod(opened_.Get(), kPrivate) != 0) return false;
    next_clean_up_ = 0;
    return true;
}

std::optional<Record> EvidenceStore::Keep(int object, const std::string& path, std::uint64_t most) {
    struct stat info {};
    if (::fstat(object, &info) != 0 || !(S_ISREG(info.st_mode) || S_ISLNK(info.st_mode)) ||
        !Prepare()) {
        return std::nullopt;
    }
    std::string content;
    if (!Read(object, info, std::min(most, limits_.most_object_bytes), content)) {
        return std::nullopt;
    }
    Record record{IdOf(content),
                  path,
                  Now(),
                  info.st_mode,
                  info.st_uid,
                  info.st_gid,
                  info.st_mtim.tv_sec,
                  static_cast<std::uint64_t>(info.st_size),
                  content.size()};
    const bool is_known = ::faccessat(opened_.Get(), record.id.c_str(), F_OK, 0) == 0;
    if (!HasRoomFor(is_known ? 0 : content.size())) return std::nullopt;
    const Turn turn(opened_.Get());
    if (!Store(record.id, content) || !Append(record)) return std::nullopt;
    return record;
}

/// Drops what is too old, once an hour, and the oldest contents when there is no room.
bool EvidenceStore::HasRoomFor(std::uint64_t bytes) {
    struct statvfs system {};
    if (::fstatvfs(opened_.Get(), &system) != 0) return false;
    if (static_cast<std::uint64_t>(system.f_bavail) * system.f_frsize < limits_.left_free + bytes) {
        return false;
    }
    const bool is_full = bytes_ + bytes > limits_.most_bytes || list_bytes_ > kMostListBytes;
    if (!is_full && Now() < next_clean_up_) return true;
    const std::vector<Record> records = List();
    const std::int64_t oldest = Now() - limits_.most_days * kDay;
    const auto wanted =
        static_cast<std::uint64_t>(kRemains * static_cast<double>(limits_.most_bytes));
    const auto most_records =
        static_cast<std::size_t>(kRemains * static_cast<double>(records.size()));
    // From the newest on: each content counts once.
    std::set<std::string> counted;
    std::uint64_t total = bytes;
    std::int64_t first_kept = std::numeric_limits<std::int64_t>::max();
    for (std::size_t back = 0; back < records.size(); ++back) {
        const Record& record = records[records.size() - 1 - back];
        if (counted.insert(record.id).second) total += record.kept;
        if (record.time < oldest || (is_full && (total > wanted || back >= most_records))) break;
        first_kept = record.time;
    }
    if (!Remove([&](const Record& record) { return record.time < first_kept; })) return false;
    next_clean_up_ = Now() + kCleanUpSeconds;
    return bytes_ + bytes <= limits_.most_bytes;
}

/// Not synced: it is evidence for a person, and many contents may come at once.
bool EvidenceStore::Store(const std::string& id, const std::string& content) {
    const std::string temporary = ".new";
    if (::faccessat(opened_.Get(), id.c_str(), F_OK, 0) == 0) return true;
    const SDK::FileDescriptor file(::openat(opened_.Get(), temporary.c_str(),
                                            O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                                            0600));
    std::size_t done = 0;
    while (file.IsOpen() && done < content.size()) {
        const ssize_t size = ::write(file.Get(), content.data() + done, content.size() - done);
        if (size <= 0 && errno != EINTR) break;
        if (size > 0) done += static_cast<std::size_t>(size);
    }
    if (!file.IsOpen() || done < content.size() ||
        ::renameat(opened_.Get(), temporary.c_str(), opened_.Get(), id.c_str()) != 0) {
        ::unlinkat(opened_.Get(), temporary.c_str(), 0);
        return false;
    }
    bytes_ += content.size();
    return true;
}

/// Keeps the list open: opening it for each record costs more than writing.
bool EvidenceStore::Append(const Record& record) {
    struct stat info {};
    const bool is_replaced = ::fstat(list_.Get(), &info) != 0 || info.st_nlink == 0;
    if (is_replaced) {
        list_.Reset(::openat(opened_.Get(), kListName,
                             O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    }
    const std::string line = ToLine(record);
    list_bytes_ += line.size();
    return list_.IsOpen() &&
           ::write(list_.Get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

std::vector<Record> EvidenceStore::List() const {
    std::string text;
    SDK::FileUtils::ReadFile(ListPath(), text, std::numeric_limits<long>::max());
    std::vector<Record> records = FromLines(text);
    std::unordered_map<std::string, bool> is_there;
    const auto is_gone = [&](const Record& record) {
        const auto [known, is_new] = is_there.try_emplace(record.id, false);
        if (is_new) known->second = ::access(ContentPath(record.id).c_str(), F_OK) == 0;
        return !known->second;
    };
    records.erase(std::remove_if(records.begin(), records.end(), is_gone), records.end());
    return records;
}

std::vector<std::string> EvidenceStore::Find(const std::string& id) const {
    std::set<std::string> found;
    for (const Record& record : List()) {
        if (record.id.compare(0, id.size(), id) == 0) found.insert(record.id);
    }
    return {found.begin(), found.end()};
}

SDK::FileDescriptor EvidenceStore::Open(const std::string& id) const {
    if (!IsId(id)) {
        errno = ENOENT;
        return {};
    }
    return SDK::FileDescriptor(::open(ContentPath(id).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
}

std::optional<std::size_t> EvidenceStore::Remove(
    const std::function<bool(const Record&)>& is_dropped) {
    if (!Prepare()) return std::nullopt;
    const Turn turn(opened_.Get());
    std::set<std::string> kept;
    std::set<std::string> dropped;
    std::string lines;
    bytes_ = 0;
    for (const Record& record : List()) {
        if (is_dropped(record)) {
            dropped.insert(record.id);
            continue;
        }
        lines += ToLine(record);
        if (kept.insert(record.id).second) bytes_ += record.kept;
    }
    if (SDK::FileUtils::WriteFile(ListPath(), lines, false) != 0) return std::nullopt;
    list_bytes_ = lines.size();
    std::size_t removed = 0;
    for (const std::string& id : dropped) {
        if (kept.count(id) == 0 && ::unlinkat(opened_.Get(), id.c_str(), 0) == 0) ++removed;
    }
    return removed;
}

}  // namespace Evidence
