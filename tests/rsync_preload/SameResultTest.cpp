// Compares the distribution's rsync with and without the library.
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

    /// Everything below the directory that rsync copies. rsync 3.5.0 gives links and special files
    /// the time of the copy.
    static std::string Describe(const std::string& directory) {
        return Shell("cd " + directory +
                     " && find . -printf '%p %y %m %U %G %n %l\\n' | sort; "
                     "find . -type f -printf '%p %T@\\n' -o -type d -printf '%p %T@\\n' | sort; "
                     "find . -type f -exec sha256sum {} + | sort -k2; "
                     "find . -type b -o -type c | xargs -r stat -c '%n %t %T' | sort; "
                     "find . -print0 | sort -z | xargs -0 getfattr -P -h -d -m - 2>/dev/null; "
                     "find . -print0 | sort -z | xargs -0 getfacl -P -n 2>/dev/null; true")
            .output;
    }

    test::TempDir dir_;
    const std::string rsync_ = dir_.Path("rsync");
};

TEST_F(RsyncWithNap, TreeOfEveryKind_IsCopiedTheSame) {
    const std::string tree = dir_.Path("tree");
    ASSERT_EQ(Shell("mkdir -p " + tree + "/d/empty " + tree + "/locked && cd " + tree +
                    " && echo text >f && : >none && head -c 3000000 /dev/urandom >large"
                    " && ln f hard && ln f d/hard && ln -s f link && ln -s /nowhere d/dangling"
                    " && mkfifo fifo && chmod 0 d/hard && echo x >'odd \"n*me'"
                    " && chmod 1700 locked")
                  .code,
              0);
    // What this file system or user cannot make is left out.
    Shell("cd " + tree +
          "; mknod zero c 1 5; mknod loop b 7 99; chown 12345:54321 none locked; chmod 4751 none; "
          "chown -h 12345:54321 link; setfattr -n user.note -v value f; "
          "setfattr -n user.note -v other locked; setfacl -m u:12345:rwx,g:54321:r d; "
          "setfacl -d -m u:12345:rx locked; "
          // A directory's time is not compared below the second.
          "find . -depth -exec touch -h -d '2001-02-03 04:05:06.5 UTC' {} +");
    const std::string all = "$rsync -azHXA --links --delete-excluded --temp-dir=/tmp " + tree;
    EXPECT_EQ(Twice(all + "/ to/").code, 0);
    EXPECT_EQ(Describe(dir_.Path("preload/to")), Describe(tree));
    EXPECT_EQ(Describe(dir_.Path("plain/to")), Describe(tree));
    // Changed, grown, gone and added, and put right again.
    Twice(
        "cd to; echo >>f; rm -r fifo d; mkdir fifo; echo y >new; ln -sf none link; chmod 777 none");
    EXPECT_EQ(Twice(all + "/ to/ --delete --checksum -i").code, 0);
    EXPECT_EQ(Describe(dir_.Path("preload/to")), Describe(tree));
}

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
