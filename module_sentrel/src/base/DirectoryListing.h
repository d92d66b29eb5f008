#pragma once

#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

namespace Engine {

/// Reads the names in a held directory, except "." and "..", in no order. Leaves the descriptor as
/// it is. Not thread-safe.
class DirectoryListing {
  public:
    explicit DirectoryListing(int directory);

    /// False when the directory cannot be read; errno says why.
    bool IsOpen() const { return stream_ != nullptr; }

    /// The next name, valid until the next call. Null at the end, with errno 0, or where the
    /// directory cannot be read on.
    const char* Next();

  private:
    struct CloseDir {
        void operator()(DIR* stream) const { ::closedir(stream); }
    };

    std::unique_ptr<DIR, CloseDir> stream_;
};

/// All the names, or as many as can be read. Stateless; thread-safe.
std::vector<std::string> NamesIn(int directory);

}  // namespace Engine
