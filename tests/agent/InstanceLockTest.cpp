#include <gtest/gtest.h>
#include <process/InstanceLock.h>
#include <unistd.h>

#include <memory>

#include "support/TempDir.h"

namespace {

using Lock = Agent::InstanceLock;

TEST(InstanceLock, SecondOne_IsToldWhoHoldsItUntilTheFirstHasGone) {
    const test::TempDir dir;
    auto first = std::make_unique<Lock>();
    Lock second;
    int holder = 0;
    std::string error;
    ASSERT_EQ(first->Take(dir.Path("lock"), holder, error), Lock::Result::kTaken) << error;
    EXPECT_EQ(second.Take(dir.Path("lock"), holder, error), Lock::Result::kHeldByOther);
    EXPECT_EQ(holder, ::getpid());
    first.reset();
    EXPECT_EQ(second.Take(dir.Path("lock"), holder, error), Lock::Result::kTaken) << error;
}

TEST(InstanceLock, FileThatIsALinkOrCannotBeMade_IsAnError) {
    const test::TempDir dir;
    Lock lock;
    int holder = 0;
    std::string error;
    dir.Write("precious", "keep me");
    ASSERT_EQ(::symlink("precious", dir.Path("lock").c_str()), 0);
    EXPECT_EQ(lock.Take(dir.Path("lock"), holder, error), Lock::Result::kFailed);
    EXPECT_EQ(lock.Take(dir.Path("none/lock"), holder, error), Lock::Result::kFailed);
    EXPECT_EQ(test::TempDir::Read(dir.Path("precious")), "keep me");
}

}  // namespace
