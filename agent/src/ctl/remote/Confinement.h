#pragma once

#include <sdk/files/FileDescriptor.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Ctl {

/// What a program that talks to a host of doubtful intent may still do: write below one directory,
/// up to a size for each file, and read what it needs to run. It is no longer root.
class Confinement {
  public:
    /// Of the system; owns what it must be able to write to.
    static constexpr unsigned int kUser = 65534;

    struct Request {
        std::string writable;               ///< a directory
        std::vector<std::string> readable;  ///< single files, beside those of the system
        std::uint64_t largest_file = 0;     ///< bytes
        std::uint64_t memory = 0;           ///< bytes of address space
    };

    /// Prepares it; blocks only for opening files.
    explicit Confinement(const Request& request);

    /// The kernel can keep the program from reading and writing elsewhere (Landlock).
    bool IsComplete() const { return ruleset_.IsOpen(); }

    /// For a forked child just before exec: confines the calling process for good. False (errno)
    /// when a part of it fails. Safe after a fork of a process with threads.
    bool Enter() const;

  private:
    bool Allow(const std::string& path, std::uint64_t access);

    const Request request_;
    SDK::FileDescriptor ruleset_;
};

/// The content of the program at `path` in memory, so that any user can execute it. Not open on
/// failure (errno).
SDK::FileDescriptor ExecutableCopy(const std::string& path);

}  // namespace Ctl
