// Owns the directory of kept contents and its limits. It must not decide what is evidence (the
// sender of alarms does).
#include "evidence/EvidenceStore.h"

#include <fcntl.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/WriteAll.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <filesystem>
#include <limits>
#include <map>
#include <utility>

#include "ContentFiles.h"
#include "EvidenceList.h"
#include "Turn.h"

namespace Evidence {

namespace {

constexpr mode_t kPrivate = 0700;
constexpr std::int64_t kDay = 24L * 3600;
constexpr std::int64_t kCleanUpSeconds = 3600;
constexpr std::uint64_t kMostListBytes = 64ULL * 1024 * 1024;
/// So much of a limit remains after a clean-up, so that not every Keep needs one.
constexpr double kRemains = 0.9;
constexpr std::uint64_t kMostWaitingBytes = 4ULL * 1024 * 1024;
constexpr std::size_t kMostWaiting = 4096;
constexpr std::int64_t kLongestWaitSeconds = 2;
/// The agent tries again soon; alarms must not wait for a command.
constexpr std::chrono::milliseconds kAgentsTurn{20};
constexpr std::chrono::milliseconds kCommandsTurn{10000};
/// Stands for a content that waits.
constexpr Place kNotWritten{std::numeric_limits<std::uint32_t>::max(), 0};

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

std::int64_t Now() {
    return std::time(nullptr);
}

}  // namespace

/// What the list has.
struct EvidenceStore::Contents {
    ContentFiles files;
    std::map<SDK::Sha256::Digest, Place> places;
};

EvidenceStore::EvidenceStore(std::string directory, Limits limits)
    : directory_(std::move(directory)), limits_(limits), contents_(std::make_unique<Contents>()) {}

EvidenceStore::~EvidenceStore() {
    WriteWaiting();
}

bool EvidenceStore::HasWaiting() const {
    return !waiting_.empty();
}

bool EvidenceStore::Prepare() {
    struct stat info {};
    if (opened_.IsOpen() && ::fstat(opened_.Get(), &info) == 0 && info.st_nlink > 0) return true;
    if (SDK::DirUtils::MakeDirs(directory_, kPrivate) != 0) return false;
    opened_.Reset(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened_.IsOpen() || ::fchmod(opened_.Get(), kPrivate) != 0) return false;
    list_.Reset();
    next_clean_up_ = 0;
    return true;
}

/// Reads the list again when another process has replaced it.
bool EvidenceStore::FollowList() {
    struct stat info {};
    if (::fstat(list_.Get(), &info) == 0 && info.st_nlink > 0) return true;
    if (!OpenList()) return false;
    Load(ListPresent());
    return true;
}

bool EvidenceStore::OpenList() {
    list_.Reset(::openat(opened_.Get(), kListName,
                         O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    return list_.IsOpen();
}

void EvidenceStore::Load(const std::vector<ListedRecord>& records) {
    contents_->places.clear();
    bytes_ = 0;
    std::uint32_t last_pack = 0;
    for (const auto& [record, place] : records) {
        last_pack = std::max(last_pack, place.pack);
        if (contents_->places.try_emplace(DigestOf(record.id), place).second) bytes_ += record.kept;
    }
    for (const Waiting& waiting : waiting_) {
        if (waiting.is_new && contents_->places.try_emplace(waiting.digest, kNotWritten).second) {
            bytes_ += waiting.record.kept;
        }
    }
    contents_->files.BeginPack(last_pack + 1);
    struct stat info {};
    list_bytes_ = ::fstat(list_.Get(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

std::optional<Record> EvidenceStore::Keep(int object, const std::string& path, std::uint64_t most) {
    struct stat info {};
    if (::fstat(object, &info) != 0 || !(S_ISREG(info.st_mode) || S_ISLNK(info.st_mode)) ||
        !Prepare() || !FollowList()) {
        return std::nullopt;
    }
    const std::int64_t now = Now();
    const bool is_much = waiting_bytes_ >= kMostWaitingBytes || waiting_.size() >= kMostWaiting;
    const bool is_late =
        !waiting_.empty() && now - waiting_.front().record.time >= kLongestWaitSeconds;
    if ((is_much || is_late) && !WriteWaiting() && is_much) return std::nullopt;
    std::string content;
    if (!Read(object, info, std::min(most, limits_.most_object_bytes), content)) {
        return std::nullopt;
    }
    sha256_.Restart();
    sha256_.Update(content.data(), content.size());
    Record record{sha256_.Hex(),
                  path,
                  now,
                  info.st_mode,
                  info.st_uid,
                  info.st_gid,
                  info.st_mtim.tv_sec,
                  static_cast<std::uint64_t>(info.st_size),
                  content.size()};
    const SDK::Sha256::Digest digest = DigestOf(record.id);
    const bool is_known = contents_->places.count(digest) > 0;
    if (!HasRoomFor(is_known ? 0 : content.size())) return std::nullopt;
    // A clean-up may have dropped it.
    const bool is_new = contents_->places.try_emplace(digest, kNotWritten).second;
    if (is_new) {
        bytes_ += content.size();
        waiting_bytes_ += content.size();
    }
    waiting_.push_back({record, digest, is_new ? std::move(content) : std::string(), is_new});
    return record;
}

/// Drops the oldest contents when there is no room.
bool EvidenceStore::HasRoomFor(std::uint64_t bytes) {
    struct statvfs system {};
    if (::fstatvfs(opened_.Get(), &system) != 0) return false;
    const std::uint64_t free = static_cast<std::uint64_t>(system.f_bavail) * system.f_frsize;
    if (free < limits_.left_free + waiting_bytes_ + bytes) return false;
    if (bytes > limits_.most_bytes) return false;
    const bool is_full = bytes_ + bytes > limits_.most_bytes || list_bytes_ > kMostListBytes;
    return !is_full || DropOldest(bytes, true);
}

/// Drops what is too old, and when the store is full the oldest until `bytes` more fit.
bool EvidenceStore::DropOldest(std::uint64_t bytes, bool is_full) {
    const std::int64_t oldest = Now() - limits_.most_days * kDay;
    const auto wanted =
        static_cast<std::uint64_t>(kRemains * static_cast<double>(limits_.most_bytes));
    const auto choose = [&](const std::vector<ListedRecord>& records) {
        const auto most_records =
            static_cast<std::size_t>(kRemains * static_cast<double>(records.size()));
        std::vector<bool> is_dropped(records.size(), true);
        // From the newest on: each content counts once.
        std::set<std::string> counted;
        std::uint64_t total = bytes + waiting_bytes_;
        for (std::size_t back = 0; back < records.size(); ++back) {
            const std::size_t at = records.size() - 1 - back;
            const Record& record = records[at].record;
            if (counted.insert(record.id).second) total += record.kept;
            if (record.time < oldest || (is_full && (total > wanted || back >= most_records)))
                break;
            is_dropped[at] = false;
        }
        return is_dropped;
    };
    if (!Drop(choose, kAgentsTurn)) return false;
    return bytes_ + bytes <= limits_.most_bytes;
}

bool EvidenceStore::Write() {
    const bool is_written = WriteWaiting();
    if (is_written && Now() >= next_clean_up_ && Prepare()) {
        next_clean_up_ = Now() + kCleanUpSeconds;
        DropOldest(0, false);
    }
    return is_written;
}

/// Not synced: it is evidence for a person, and many contents may come at once.
bool EvidenceStore::WriteWaiting() {
    if (waiting_.empty()) return true;
    if (!Prepare()) return false;
    const Turn turn(opened_.Get(), kAgentsTurn);
    if (!turn.IsOurs() || !FollowList() || !WriteContents() || !WriteRecords()) return false;
    waiting_.clear();
    waiting_bytes_ = 0;
    return true;
}

bool EvidenceStore::WriteContents() {
    std::string packed;
    bool has_packed = false;
    for (const Waiting& waiting : waiting_) {
        if (!waiting.is_new) continue;
        if (waiting.content.size() <= kMostPacked) {
            packed += waiting.content;
            has_packed = true;
        } else if (ContentFiles::Store(opened_.Get(), waiting.record.id, waiting.content)) {
            contents_->places[waiting.digest] = {};
        } else {
            return false;
        }
    }
    if (!has_packed) return true;
    Place place = contents_->files.Append(opened_.Get(), packed);
    if (place.pack == 0) return false;
    for (const Waiting& waiting : waiting_) {
        if (!waiting.is_new || waiting.content.size() > kMostPacked) continue;
        contents_->places[waiting.digest] = place;
        place.at += static_cast<std::uint32_t>(waiting.content.size());
    }
    return true;
}

bool EvidenceStore::WriteRecords() {
    std::string lines;
    for (const Waiting& waiting : waiting_) {
        const auto found = contents_->places.find(waiting.digest);
        // Somebody may have removed a content that was known when the record was made.
        if (found != contents_->places.end()) lines += ToLine(waiting.record, found->second);
    }
    struct stat before {};
    if (::fstat(list_.Get(), &before) != 0) return false;
    if (SDK::WriteAll(list_.Get(), lines.data(), lines.size()) == 0) {
        list_bytes_ += lines.size();
        return true;
    }
    const int error = errno;
    [[maybe_unused]] const int result = ::ftruncate(list_.Get(), before.st_size);
    errno = error;
    return false;
}

std::vector<ListedRecord> EvidenceStore::ListPresent() const {
    const SDK::FileDescriptor directory(
        ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    std::string text;
    SDK::FileUtils::ReadFile(ListPath(), text, std::numeric_limits<long>::max());
    std::vector<ListedRecord> records = FromLines(text);
    PresentContents present(directory.Get());
    const auto is_gone = [&](const ListedRecord& listed) {
        return !present.Has(listed.record.id, listed.place, listed.record.kept);
    };
    records.erase(std::remove_if(records.begin(), records.end(), is_gone), records.end());
    return records;
}

std::vector<Record> EvidenceStore::List() const {
    std::vector<Record> records;
    for (ListedRecord& listed : ListPresent()) records.push_back(std::move(listed.record));
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
    const SDK::FileDescriptor directory(
        ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory.IsOpen()) return {};
    errno = ENOENT;
    if (!IsId(id)) return {};
    SDK::FileDescriptor content(
        ::openat(directory.Get(), id.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (content.IsOpen() || errno != ENOENT) return content;
    for (const auto& [record, place] : ListPresent()) {
        if (record.id == id)
            return ContentFiles::OpenPacked(directory.Get(), id, place, record.kept);
    }
    errno = ENOENT;
    return {};
}

std::optional<std::size_t> EvidenceStore::Remove(
    const std::function<bool(const Record&)>& is_dropped) {
    const auto choose = [&](const std::vector<ListedRecord>& records) {
        std::vector<bool> chosen;
        chosen.reserve(records.size());
        for (const ListedRecord& listed : records) chosen.push_back(is_dropped(listed.record));
        return chosen;
    };
    return Drop(choose, kCommandsTurn);
}

/// Replaces the list before it removes contents.
std::optional<std::size_t> EvidenceStore::Drop(const Choose& choose,
                                               std::chrono::milliseconds most) {
    if (!Prepare()) return std::nullopt;
    WriteWaiting();
    const Turn turn(opened_.Get(), most);
    if (!turn.IsOurs()) return std::nullopt;
    std::vector<ListedRecord> kept = ListPresent();
    const std::vector<bool> is_dropped = choose(kept);
    if (std::find(is_dropped.begin(), is_dropped.end(), true) == is_dropped.end()) {
        RemoveUnlisted(kept);
        return 0;
    }
    std::map<std::string, Place> removed;
    std::size_t next = 0;
    const auto take = [&](const ListedRecord& listed) {
        if (!is_dropped[next++]) return false;
        removed[listed.record.id] = listed.place;
        return true;
    };
    kept.erase(std::remove_if(kept.begin(), kept.end(), take), kept.end());
    for (const ListedRecord& listed : kept) removed.erase(listed.record.id);
    std::set<std::uint32_t> packs;
    for (const auto& [id, place] : removed) packs.insert(place.pack);
    packs.erase(0);
    Load(kept);
    if (!MoveContents(kept, packs)) return std::nullopt;
    std::string lines;
    for (const auto& [record, place] : kept) lines += ToLine(record, place);
    if (SDK::FileUtils::WriteFile(ListPath(), lines, false) != 0 || !OpenList()) {
        return std::nullopt;
    }
    list_bytes_ = lines.size();
    RemoveUnlisted(kept);
    return removed.size();
}

/// Writes what is kept of these packs into another one. False on failure (errno).
bool EvidenceStore::MoveContents(std::vector<ListedRecord>& kept,
                                 const std::set<std::uint32_t>& packs) {
    std::map<std::string, Place> moved;
    for (auto& [record, place] : kept) {
        if (packs.count(place.pack) == 0) continue;
        const auto [known, is_first] = moved.try_emplace(record.id);
        if (is_first) {
            std::string content;
            if (!ContentFiles::Read(opened_.Get(), place, record.kept, content)) return false;
            known->second = contents_->files.Append(opened_.Get(), content);
            if (known->second.pack == 0) return false;
            contents_->places[DigestOf(record.id)] = known->second;
        }
        place = known->second;
    }
    return true;
}

/// Also what a crash left without a record.
void EvidenceStore::RemoveUnlisted(const std::vector<ListedRecord>& kept) const {
    std::set<std::string> listed;
    for (const auto& [record, place] : kept) {
        listed.insert(place.pack == 0 ? record.id : ContentFiles::PackName(place.pack));
    }
    std::error_code failed;
    for (const auto& entry : std::filesystem::directory_iterator(directory_, failed)) {
        const std::string name = entry.path().filename();
        const bool is_content = IsId(name) || ContentFiles::PackNumber(name) != 0;
        if (is_content && listed.count(name) == 0) ::unlinkat(opened_.Get(), name.c_str(), 0);
    }
}

}  // namespace Evidence
