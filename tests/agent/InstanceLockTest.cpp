#include <gtest/gtest.h>
#include <process/InstanceLock.h>
#include <unistd.h>

#include "support/TempDir.h"

namespace {

TEST(InstanceLock, FileThatIsALinkOrCannotBeMade_IsAnError) {
    const test::TempDir dir;
    Agent::InstanceLock lock;
    int holder = 0;
    std::string error;
    dir.Write("precious", "keep me");
    ASSERT_EQ(::symlink("precious", dir.Path("lock").c_str()), 0);
    EXPECT_EQ(lock.Take(dir.Path("lock"), holder, error), Agent::InstanceLock::Result::kFailed);
    EXPECT_EQ(lock.Take(dir.Path("none/lock"), holder, error),
              Agent::InstanceLock::Result::kFailed);
    EXPECT_EQ(test::TempDir::Read(dir.Path("precious")), "keep me");
}

}  // namespace
