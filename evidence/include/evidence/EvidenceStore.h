#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sdk/files/Sha256.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Evidence {

struct ListedRecord;

/// What the store may take up.
struct Limits {
    std::uint64_t most_bytes = 1024ULL * 1024 * 1024;       ///< of all contents
    std::uint64_t most_object_bytes = 16ULL * 1024 * 1024;  ///< of one; the rest is not kept
    std::uint64_t left_free = 512ULL * 1024 * 1024;  ///< bytes that stay free on its file system
    int most_days = 30;                              ///< after which a content is dropped
};

/// One time that an object was found changed or foreign.
struct Record {
    std::string id;         ///< SHA-256 of the kept content, lower-case hex
    std::string path;       ///< where it was
    std::int64_t time = 0;  ///< when it was kept, seconds since the epoch
    std::uint32_t mode = 0;
    std::uint32_t user = 0;
    std::uint32_t group = 0;
    std::int64_t modified = 0;  ///< seconds since the epoch
    std::uint64_t size = 0;     ///< of the object
    std::uint64_t kept = 0;     ///< bytes of it that were kept, from the beginning
};

/// Keeps contents of files, and texts of links, in a directory that only root may enter: each
/// content once, under its SHA-256, and a list of where and when it was found. Other processes may
/// read and remove meanwhile. Not thread-safe.
class EvidenceStore {
  public:
    /// The directory of an installation's evidence; `installation` ends in "/".
    static std::string Directory(const std::string& installation) {
        return installation + "data/evidence";
    }

    /// `directory` is made by the first Keep.
    explicit EvidenceStore(std::string directory, Limits limits = {});
    /// Writes what waits.
    ~EvidenceStore();
    EvidenceStore(const EvidenceStore&) = delete;
    EvidenceStore& operator=(const EvidenceStore&) = delete;

    /// Keeps at most `most` bytes of the open object (O_PATH is enough). None when it is neither a
    /// regular file nor a link, cannot be read, or the limits leave no room. The content and its
    /// record wait in memory, some MiB at most, until Write.
    std::optional<Record> Keep(int object, const std::string& path, std::uint64_t most);

    /// Writes what waits: contents first, then their records, without fsync. False when something
    /// must wait longer (errno), since the disk is full or another process removes.
    bool Write();
    bool HasWaiting() const;

    /// What was written, oldest first. Leaves out records whose content is gone.
    std::vector<Record> List() const;

    /// The ids that begin with `id`, each once.
    std::vector<std::string> Find(const std::string& id) const;

    /// A content for reading, also a copy of it in memory; not open when there is none (errno).
    SDK::FileDescriptor Open(const std::string& id) const;

    /// Removes the records for which `is_dropped` is true, and the contents that are left without
    /// one. Asks for each record of List in its order. Returns the number of contents removed, or
    /// none (errno). Waits some seconds for another process.
    std::optional<std::size_t> Remove(const std::function<bool(const Record&)>& is_dropped);

  private:
    struct Contents;
    struct Waiting {
        Record record;
        SDK::Sha256::Digest digest;
        std::string content;
        bool is_new;  ///< the store does not have the content yet
    };
    /// Tells for each record whether it is dropped.
    using Choose = std::function<std::vector<bool>(const std::vector<ListedRecord>&)>;

    static constexpr const char* kListName = "list.jsonl";

    bool Prepare();
    bool FollowList();
    bool OpenList();
    void Load(const std::vector<ListedRecord>& records);
    bool HasRoomFor(std::uint64_t bytes);
    bool DropOldest(std::uint64_t bytes, bool is_full);
    bool WriteWaiting();
    bool WriteContents();
    bool WriteRecords();
    std::optional<std::size_t> Drop(const Choose& choose, std::chrono::milliseconds most);
    bool MoveContents(std::vector<ListedRecord>& kept, const std::set<std::uint32_t>& packs);
    void RemoveUnlisted(const std::vector<ListedRecord>& kept) const;
    std::vector<ListedRecord> ListPresent() const;
    std::string ListPath() const { return directory_ + "/" + kListName; }

    const std::string directory_;
    const Limits limits_;
    SDK::FileDescriptor opened_;
    SDK::FileDescriptor list_;  ///< for appending
    SDK::Sha256 sha256_;
    std::vector<Waiting> waiting_;
    std::uint64_t waiting_bytes_ = 0;
    std::unique_ptr<Contents> contents_;  ///< known once list_ is open
    std::uint64_t bytes_ = 0;             ///< of all contents, also of those that wait
    std::uint64_t list_bytes_ = 0;
    std::int64_t next_clean_up_ = 0;  ///< seconds since the epoch
};

}  // namespace Evidence
