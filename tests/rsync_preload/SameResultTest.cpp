// Compares the distribution's rsync with and without the library. The copies themselves are
// compared by the SDK's tests of restored trees, whose rsync has the library.
#include <gtest/gtest.h>
#include <sdk/commands/ExecuteCmdUtils.h>
#include <unistd.h>

#include <filesystem>

#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using SDK::ExecuteCmdUtils;

constexpr int kDeadlineMs = 100000;
constexpr std::size_t kMuch = 1 << 20;

struct Result {
    int code = -1;
    std::string output;
};

class RsyncWithNap : public ::testing::Test {
  protected:
    RsyncWithNap() {
        fs::copy_file("/usr/bin/rsync", rsync_);
        fs::create_directories(dir_.Path("plain"));
        fs::create_directories(dir_.Path("preload"));
    }

    static Result Shell(const std::string& script) {
        Result result;
        const int ended = ExecuteCmdUtils::ExecuteCmd("/bin/sh", {"-c", script}, kDeadlineMs,
                                                      result.code, result.output, kMuch);
        EXPECT_EQ(ended, 0) << script;
        return result;
    }

    /// Runs `script` in the directory "plain", and again in "preload" where $rsync has the library;
    /// both must give the same code and output.
    Result Twice(const std::string& script) const {
        const std::string library = SENTREL_PRELOAD_LIBRARY;
        const Result plain =
            Shell("rsync=" + rsync_ + "; cd " + dir_.Path("plain") + "; " + script);
        const Result preload = Shell("rsync='env LD_PRELOAD=" + library + " " + rsync_ + "'; cd " +
                                     dir_.Path("preload") + "; " + script);
        EXPECT_EQ(preload.code, plain.code) << preload.output;
        EXPECT_EQ(preload.output, plain.output);
        return preload;
    }

    test::TempDir dir_;
    const std::string rsync_ = dir_.Path("rsync");
};

TEST_F(RsyncWithNap, Failures_EndWithTheSameCode) {
    EXPECT_EQ(Twice("$rsync -a /no/such/file here").code, 23);
    EXPECT_EQ(Twice("$rsync --no-such-option 2>&1 | head -1; $rsync --nonsense 2>/dev/null").code,
              1);
    EXPECT_EQ(Twice("$rsync -a -e false host:/a here 2>/dev/null").code, 12);
    // The receiving end is killed in the midst of a file.
    dir_.Write("source/big", std::string(600000, 'x'));
    const Result killed = Twice("$rsync -a --bwlimit=400 " + dir_.Path("source") +
                                "/ to/ 2>/dev/null & p=$!; "
                                "until ls -A to 2>/dev/null | grep -q big; do :; done; "
                                "read -r child rest </proc/$p/task/$p/children; "
                                "kill -9 $child; wait $p");
    EXPECT_GT(killed.code, 0);
    EXPECT_NE(killed.code, 127);
}

TEST_F(RsyncWithNap, WhatRsyncStarts_GetsNoLibrary) {
    const std::string shell = dir_.Write("shell", "#!/bin/sh\nenv >&2\nexit 1\n");
    fs::permissions(shell, fs::perms::owner_all);
    const Result result =
        Twice("$rsync -a -e " + shell + " host:/a here 2>&1 | grep -oE '^(PWD|LD_)'");
    EXPECT_EQ(result.output, "PWD\n");
}

}  // namespace
