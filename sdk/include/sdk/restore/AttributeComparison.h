#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace SDK {

/// The extended attributes of one object with its POSIX ACLs, as a restore sets them: values by
/// name, raw bytes.
struct ExtendedAttributes {
    static constexpr std::size_t kMostBytes = 256 * 1024;  ///< of all names and values together

    std::map<std::string, std::string> values;
    bool is_cut =
        false;  ///< there are more: the last ones, in the order of the names, are left out

    bool Has(const std::string& name) const { return values.count(name) != 0; }
};

/// The kinds of attributes, as bits. A file system may take some of them only.
enum AttributeKind : unsigned {
    kNoAttributes = 0,
    kUserAttributes = 1,
    kTrustedAttributes = 2,
    kSecurityAttributes = 4,  ///< with file capabilities
    kAcls = 8,
    kAllAttributes = 15,
};

/// Compares extended attributes of objects and their copies. An object is its name in an open
/// directory (O_PATH is enough); links at the name are not followed. Stateless and thread-safe.
class AttributeComparison {
  public:
    /// The attributes of these kinds, without those that the system sets on its own, such as
    /// security labels, and without those that rsync never copies. One system call where the object
    /// has none. What cannot be read counts as cut.
    static ExtendedAttributes Read(int directory, const std::string& name, unsigned kinds);

    /// True when a restore would change `live`. Of an object with too many attributes only the
    /// first are compared, and a restore leaves it only these.
    static bool Differ(const ExtendedAttributes& live, const ExtendedAttributes& copy);

    /// Gives the object the attributes in `wanted`, and removes others of the same kinds. 0, or -1
    /// (errno of the first failure; it continues).
    static int Make(int directory, const std::string& name, const ExtendedAttributes& wanted,
                    unsigned kinds);

    /// The kinds that the directory's file system takes from this process: tries each on a file of
    /// its own there, which it removes. Includes trusted ones if this process sees none of them.
    static unsigned TakenIn(int directory);
};

}  // namespace SDK
