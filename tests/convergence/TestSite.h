#pragma once

#include <random>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace test {

using Random = std::mt19937_64;

/// True once in `chance` times.
inline bool Once(Random& random, unsigned int chance) {
    return random() % chance == 0;
}

template <typename Container>
const auto& OneOf(const Container& all, Random& random) {
    return all[random() % all.size()];
}

/// What a storm is let loose on: a site to protect and its backup folder, a place beside it that
/// things are moved to and from, and a bystander that planted links lead to and nobody may touch.
/// The site is built from the seed. All of it goes with the object.
class TestSite {
  public:
    static constexpr char kExcluded[] = "uploads";  ///< a directory of the site

    explicit TestSite(std::uint64_t seed);

    std::string Site() const { return dir_.Path("site"); }
    std::string Outside() const { return dir_.Path("outside"); }
    std::string Bystander() const { return dir_.Path("bystander"); }
    std::string Backup() const { return dir_.Path("backup"); }
    /// Where the backup copy of the site is.
    std::string Copy() const { return Backup() + Site(); }

    /// Relative to the site, as they were at first.
    const std::vector<std::string>& Files() const { return files_; }
    const std::vector<std::string>& Directories() const { return directories_; }

    /// A name out of a few, plain ones and odd ones alike; none holds a "/".
    static std::string Name(Random& random);
    static std::string Content(Random& random);

  private:
    void AddObject(const std::string& path, Random& random);

    TempDir dir_;
    std::vector<std::string> files_;
    std::vector<std::string> directories_;
};

}  // namespace test
