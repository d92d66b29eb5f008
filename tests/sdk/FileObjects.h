#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "sdk/files/FileDescriptor.h"

namespace test {

/// What lstat(2) says; a failure is a test failure.
inline struct stat StatOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info;
}

/// Makes `depth` directories called `name`, each in the one before, and opens the last as `at`.
inline void MakeDeep(SDK::FileDescriptor& at, const std::string& name, int depth) {
    for (int level = 0; level < depth; ++level) {
        ASSERT_EQ(::mkdirat(at.Get(), name.c_str(), 0755), 0);
        at.Reset(::openat(at.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
}

}  // namespace test
