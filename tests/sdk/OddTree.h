#pragma once

#include <sys/types.h>

#include <map>
#include <random>
#include <string>
#include <vector>

namespace test {

/// A description of each object by its path below the root ("" is the root): kind, attributes,
/// content, and the first name of the same inode. Equal states differ at most in inode numbers,
/// change times and access times.
using TreeState = std::map<std::string, std::string>;
TreeState StateOf(const std::string& root);

/// The differences, one per line; "" for none.
std::string Differences(const TreeState& expected, const TreeState& found);

/// The number of seeds of a test: `usual`, or SENTREL_TEST_SEEDS of the environment.
unsigned Seeds(unsigned usual);

/// Sets one attribute; a failure to do so is a test failure.
void SetAttribute(const std::string& path, const std::string& name, const std::string& value);

/// Builds objects of every kind that a file system knows, from a seed: contents, holes, modes,
/// owners, times, extended attributes, links, special files, names of any bytes.
class OddTree {
  public:
    explicit OddTree(unsigned seed) : random_(seed) {}

    /// A number below `limit`.
    unsigned Roll(unsigned limit);

    /// A random name, often an odd one.
    std::string Name();

    /// One object that is no directory.
    void MakeFile(const std::string& path);
    void MakeLink(const std::string& path);
    void MakeSpecial(const std::string& path);
    void MakeAny(const std::string& path);

    /// A directory with objects of all kinds, `depth` levels deep.
    void Fill(const std::string& directory, int depth);

    /// Changes, removes, replaces and adds objects in a tree.
    void Tamper(const std::string& root, int changes);

    /// Changes the object in one way.
    void Change(const std::string& path);

    /// Owner, mode, attributes and time, at random.
    void Dress(const std::string& path);

  private:
    std::string Bytes(std::size_t size);
    void SetTime(const std::string& path);

    std::mt19937 random_;
};

/// Runs the host's rsync as the agent does, with its options and its option file; returns the exit
/// code.
int RunRsync(const std::vector<std::string>& exclusions, const std::string& from,
             const std::string& to);

/// Makes `to` an exact copy of the tree or object `from`, all attributes and links included.
void Clone(const std::string& from, const std::string& to);

}  // namespace test
