#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sdk/files/Sha256.h>

#include <cstdint>
#include <map>
#include <string>

namespace Evidence {

/// Where a content lies: in a file of its own, named by its id, or in a pack. A pack holds many
/// small contents, since to make a file costs far more than to write to one: ext4 steps over each
/// inode that was freed lately, and an undone change frees one.
struct Place {
    std::uint32_t pack = 0;  ///< 0: a file of its own
    std::uint32_t at = 0;    ///< bytes from the beginning of the pack
};

/// Larger contents have files of their own.
constexpr std::uint64_t kMostPacked = 64 * 1024;

/// True for 64 lower-case hexadecimal digits.
bool IsId(const std::string& id);
/// The digest with that id, which IsId.
SDK::Sha256::Digest DigestOf(const std::string& id);

/// Writes and reads contents in the store's directory. Owns the pack that it appends to. Callers
/// take turns (Turn). Not thread-safe.
class ContentFiles {
  public:
    /// The next Append begins a new pack, with a number of `next` or above.
    void BeginPack(std::uint32_t next);

    /// Appends `contents` to the present pack. Their place, or none with pack 0 (errno).
    Place Append(int directory, const std::string& contents);

    /// Makes the file of one content. False on failure (errno).
    static bool Store(int directory, const std::string& id, const std::string& content);

    /// Reads `size` bytes that lie there; false when they are not all there.
    static bool Read(int directory, const Place& place, std::uint64_t size, std::string& content);

    /// A copy in memory of the packed content with that id; not open when it is not there (errno).
    static SDK::FileDescriptor OpenPacked(int directory, const std::string& id, const Place& place,
                                          std::uint64_t size);

    static std::string PackName(std::uint32_t pack) { return "pack-" + std::to_string(pack); }
    /// The number in the name of a pack; 0 for any other name.
    static std::uint32_t PackNumber(const std::string& name);

  private:
    bool OpenPack(int directory);

    std::uint32_t number_ = 1;
    std::uint64_t size_ = 0;
    SDK::FileDescriptor pack_;
};

/// Tells which contents are there. Asks the file system once for each file.
class PresentContents {
  public:
    explicit PresentContents(int directory) : directory_(directory) {}
    bool Has(const std::string& id, const Place& place, std::uint64_t size);

  private:
    const int directory_;
    std::map<std::string, std::int64_t> sizes_;  ///< by file name; -1: it is missing
};

}  // namespace Evidence
