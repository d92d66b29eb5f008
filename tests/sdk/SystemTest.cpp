#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>

#include "sdk/commands/ProcessUtils.h"
#include "sdk/host/InnerCpuCtrlUtils.h"
#include "sdk/host/SystemUtils.h"
#include "sdk/time/CommandInterrupter.h"
#include "sdk/time/TimeUtils.h"

namespace {

using SDK::SystemUtils;

TEST(OsName, ReleaseText_NamesTheFamily) {
    const auto family = &SystemUtils::OsNameFromRelease;
    EXPECT_EQ(family("ID=morvane\nVERSION_ID=\"1.4\"\n"), SystemUtils::kOwnFamilyA);
    EXPECT_EQ(family("VERSION_ID='2'\nID='morvane'\n"), SystemUtils::kOwnFamilyB);
    EXPECT_EQ(family("ID=morvane\nVERSION_ID=3\n"), SystemUtils::kOther);
    EXPECT_EQ(family("# ID=ubuntu\nPRETTY_NAME=\"Debian \\\"12\\\"\"\nID=debian\n"),
              SystemUtils::kDebian);
    EXPECT_EQ(family("ID=mint\nID_LIKE=\"ubuntu debian\"\n"), SystemUtils::kUbuntu);
    EXPECT_EQ(family("ID=\"rocky\"\nID_LIKE=\"rhel centos fedora\"\r\n"), SystemUtils::kRedHat);
    EXPECT_EQ(family("ID="), SystemUtils::kUnknown);
}

TEST(Process, ZombiesAndOddNumbers_AreNotAlive) {
    EXPECT_TRUE(SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(::getpid())));
    EXPECT_TRUE(SDK::ProcessUtils::IsProcessAlive(1));
    EXPECT_FALSE(SDK::ProcessUtils::IsProcessAlive(0));
    EXPECT_FALSE(SDK::ProcessUtils::IsProcessAlive(UINT_MAX));
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    EXPECT_FALSE(SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(child)));
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
}

TEST(CpuLimit, BusyThread_RestsForItsShareUnlessInterrupted) {
    using SDK::InnerCpuCtrlUtils;
    InnerCpuCtrlUtils::SetLimitPercent(25);
    const std::int64_t begin = SDK::TimeUtils::GetMonotonicMs();
    InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", 0, 10000);
    EXPECT_GE(SDK::TimeUtils::GetMonotonicMs() - begin, 29);  // three times as long as it worked

    SDK::CommandInterrupter interrupter;
    const SDK::CommandInterrupter::Scope scope(interrupter);
    interrupter.Interrupt();
    InnerCpuCtrlUtils::SetLimitPercent(1);
    const std::int64_t interrupted = SDK::TimeUtils::GetMonotonicMs();
    for (int i = 0; i < 100; ++i) {
        InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", 0, ULONG_MAX);
    }
    EXPECT_LT(SDK::TimeUtils::GetMonotonicMs() - interrupted, 90000);  // of 100 s uninterrupted
}

}  // namespace
