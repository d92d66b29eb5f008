#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Evidence {

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
    /// `directory` is made by the first Keep.
    explicit EvidenceStore(std::string directory, Limits limits = {});

    /// Keeps at most `most` bytes of the open object (O_PATH is enough). None when it is neither a
    /// regular file nor a link, cannot be read, or the limits leave no room.
    std::optional<Record> Keep(int object, const std::string& path, std::uint64_t most);

    /// What was kept, oldest first. Leaves out records whose content is gone.
    std::vector<Record> List() const;

    /// The ids that begin with `id`, each once.
    std::vector<std::string> Find(const std::string& id) const;

    /// A content for reading; not open when there is none (errno).
    SDK::FileDescriptor Open(const std::string& id) const;

    /// Removes the records for which `is_dropped` is true, and the contents that are left without
    /// one. Returns the number of contents removed, or none (errno).
    std::optional<std::size_t> Remove(const std::function<bool(const Record&)>& is_dropped);

  private:
    static constexpr const char* kListName = "list.jsonl";

    bool Prepare();
    bool HasRoomFor(std::uint64_t bytes);
    bool Store(const std::string& id, const std::string& content);
    bool Append(const Record& record);
    std::string ContentPath(const std::string& id) const { return directory_ + "/" + id; }
    std::string ListPath() const { return directory_ + "/" + kListName; }

    const std::string directory_;
    const Limits limits_;
    SDK::FileDescriptor opened_;
    SDK::FileDescriptor list_;  ///< for appending
    std::uint64_t bytes_ = 0;   ///< of all contents; known once opened_ is open
    std::uint64_t list_bytes_ = 0;
    std::int64_t next_clean_up_ = 0;  ///< seconds since the epoch
};

}  // namespace Evidence
