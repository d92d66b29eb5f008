#pragma once

#include <random>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace test {

using Random = std::mt19937_64;

/// True with a probability of one in `chance`.
inline bool OneIn(Random& random, unsigned int chance) {
    return random() % chance == 0;
}

template <typename Container>
const auto& OneOf(const Container& all, Random& random) {
    return all[random() % all.size()];
}

/// The directories of one storm: the protected site, its backup folder, a directory outside the
/// site for moves, and a directory that symbolic links lead to and that must not change. The seed
/// decides the site's content. The destructor removes everything.
class TestSite {
  public:
    static constexpr char kExcluded[] = "uploads";  ///< a directory of the site

    explicit TestSite(std::uint64_t seed);

    std::string Site() const { return dir_.Path("site"); }
    std::string Outside() const { return dir_.Path("outside"); }
    std::string LinkTarget() const { return dir_.Path("link-target"); }
    std::string Backup() const { return dir_.Path("backup"); }
    /// The backup copy of the site.
    std::string Copy() const { return Backup() + Site(); }

    /// The initial objects, relative to the site.
    const std::vector<std::string>& Files() const { return files_; }
    const std::vector<std::string>& Directories() const { return directories_; }

    /// A plain or an odd name out of a small set; none contains a "/".
    static std::string Name(Random& random);
    static std::string Content(Random& random);

  private:
    void AddObject(const std::string& path, Random& random);

    TempDir dir_;
    std::vector<std::string> files_;
    std::vector<std::string> directories_;
};

}  // namespace test
