#pragma once

#include <string>

namespace SDK {

/// Properties of this host. Thread-safe.
class SystemUtils {
  public:
    /// Operating-system families as GetOsName numbers them. The first two are the releases of the
    /// agent's own distribution family, which have downloads of their own.
    enum OsFamily : unsigned int {
        kOwnFamilyA = 0,
        kOwnFamilyB = 1,
        kDebian = 2,
        kUbuntu = 3,
        kRedHat = 4,
        kSuse = 5,
        kOther = 6,
        kUnknown = 7,
    };

    static SystemUtils* GetInstance();

    /// The processor architecture as the kernel reports it, such as "x86_64".
    std::string GetOsArch() const;

    /// The family (OsFamily) by ID and ID_LIKE of os-release; kUnknown without such a file.
    unsigned int GetOsName() const;

    /// The family that the given os-release text names.
    static unsigned int OsNameFromRelease(const std::string& os_release_text);

  private:
    SystemUtils() = default;
};

}  // namespace SDK
