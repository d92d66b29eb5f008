#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "baseline/ManifestEntry.h"

namespace Baseline {

/// What a manifest is about, and who approved it.
struct ManifestInfo {
    std::string real_path;                ///< what is protected; a directory's ends in "/"
    std::string backup_path;              ///< the copy of a file is this followed by its full path
    bool is_file = false;                 ///< a single file is protected
    std::vector<std::string> exclusions;  ///< patterns as rsync's
    std::int64_t created = 0;             ///< seconds since the epoch
    std::string approval;                 ///< how and by whom, in words
    std::int64_t attribute_kinds = 0;     ///< of extended attributes that the copies have
};

/// The list of all objects of one protected path in the state that an operator approved. Read from
/// a file of fixed-size records, which stays mapped. Immutable; thread-safe.
class Manifest {
  public:
    ~Manifest();
    Manifest(const Manifest&) = delete;
    Manifest& operator=(const Manifest&) = delete;

    /// Maps the file and checks its structure. Null, with `error` in words, when it cannot be read
    /// or is damaged.
    static std::shared_ptr<const Manifest> Open(const std::string& file, std::string& error);

    const ManifestInfo& Info() const { return info_; }
    std::size_t Size() const { return count_; }
    ManifestEntry At(std::size_t index) const;

    /// `path` relative to the protected path, without a trailing "/". Takes a microsecond or two.
    std::optional<ManifestEntry> Find(std::string_view path) const;

    /// The index of the first entry that is not ordered before `path`.
    std::size_t LowerBound(std::string_view path) const;

    /// The bytes of the whole file.
    std::string_view Bytes() const { return bytes_; }

  private:
    explicit Manifest(std::string_view bytes) : bytes_(bytes) {}
    bool ReadHeader();

    std::string_view bytes_;  ///< mapped
    ManifestInfo info_;
    std::size_t count_ = 0;
    std::string_view records_;
    std::string_view names_;
};

/// Collects entries in order and writes the file. Not thread-safe.
class ManifestWriter {
  public:
    ManifestWriter();
    ~ManifestWriter();
    ManifestWriter(const ManifestWriter&) = delete;
    ManifestWriter& operator=(const ManifestWriter&) = delete;

    /// Takes the next entry; its path must be ordered behind the last one's. Returns its index.
    std::size_t Add(const ManifestEntry& entry);

    /// Completes an entry that was added before.
    void SetContent(std::size_t index, const Digest& content);

    /// The object could not be read: nothing is approved of it.
    void SetOpen(std::size_t index);

    std::size_t Size() const;

    /// Writes and syncs `file`, mode 0600. 0, or -1 (errno).
    int Write(const ManifestInfo& info, const std::string& file) const;

  private:
    struct Data;
    std::unique_ptr<Data> data_;
};

}  // namespace Baseline
