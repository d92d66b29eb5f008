#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "baseline/Manifest.h"
#include "baseline/TreeWalk.h"

namespace Baseline {

/// Lists the backup copies of one protected path in a new manifest. Reads the content of a copy
/// only where the last manifest does not know it. For one use; not thread-safe.
class ManifestBuilder {
  public:
    struct Request {
        TreeRoot copies;
        /// Without an anchor: of the site's objects only that is known which the last manifest
        /// says of copies that have not changed since.
        TreeRoot live;
        const Manifest* last = nullptr;  ///< borrowed; null: none
        /// What is approved, relative to the protected path: of all else the new manifest says what
        /// the last one says, whatever the copies are now. None: everything.
        std::optional<std::vector<std::string>> parts;
        /// When the copies were begun: an older object on the site is the one that was copied.
        std::timespec begun{};
        /// Objects that could not be copied, relative to the protected path.
        std::vector<std::string> open;
        /// True for a path, relative to the protected path, that is not protected.
        std::function<bool(const std::string& path, bool is_directory)> ignored;
        std::function<bool()> is_over;  ///< asked often, on several threads
        unsigned int threads = 1;
    };

    explicit ManifestBuilder(Request request);

    /// Fills `writer`. False when `is_over` returned true or there are no copies.
    bool Build(ManifestWriter& writer);

    /// Contents that had to be read.
    std::size_t Hashed() const { return hashed_; }

  private:
    ManifestEntry EntryOf(const WalkedObject& copy);
    Identity LiveIdentity(const WalkedObject& copy);
    bool IsInParts(std::string_view path) const;
    bool HasPartsBelow(std::string_view directory) const;
    void SkipToKept();
    void AddUpTo(ManifestWriter& writer, const std::string* path);

    Request request_;
    std::size_t next_open_ = 0;
    std::size_t next_kept_ = 0;  ///< in the last manifest
    std::string live_path_;      ///< of live_directory_
    SDK::FileDescriptor live_directory_;
    std::size_t hashed_ = 0;
};

}  // namespace Baseline
