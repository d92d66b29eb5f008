#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <set>

#include "sdk/CommandInterrupter.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/IpUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/StrUtils.h"
#include "sdk/SystemUtils.h"
#include "sdk/TimeUtils.h"

namespace {

using SDK::PathUtils;
using SDK::SystemUtils;

TEST(OsName, ReleaseText_NamesTheFamily) {
    const auto family = &SystemUtils::OsNameFromRelease;
    EXPECT_EQ(family("ID=morvane\nVERSION_ID=\"1.4\"\n"), SystemUtils::kOwnFamilyA);
    EXPECT_EQ(family("VERSION_ID='2'\nID='morvane'\n"), SystemUtils::kOwnFamilyB);
    EXPECT_EQ(family("ID=morvane\nVERSION_ID=3\n"), SystemUtils::kOther);
    EXPECT_EQ(family("# ID=ubuntu\nPRETTY_NAME=\"Debian \\\"12\\\"\"\nID=debian\n"),
              SystemUtils::kDebian);
    EXPECT_EQ(family("ID=ubuntu\nID_LIKE=debian"), SystemUtils::kUbuntu);
    EXPECT_EQ(family("ID=mint\nID_LIKE=\"ubuntu debian\"\n"), SystemUtils::kUbuntu);
    EXPECT_EQ(family("ID=\"rocky\"\nID_LIKE=\"rhel centos fedora\"\r\n"), SystemUtils::kRedHat);
    EXPECT_EQ(family("ID=opensuse-leap\n"), SystemUtils::kSuse);
    EXPECT_EQ(family("ID=arch\n"), SystemUtils::kOther);
    EXPECT_EQ(family("NAME=x\n"), SystemUtils::kUnknown);
    EXPECT_EQ(family("ID="), SystemUtils::kUnknown);
    EXPECT_FALSE(SystemUtils::GetInstance()->GetOsArch().empty());
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

TEST(Path, Installation_IsAboveTheLibrarysFolder) {
    const std::string found = PathUtils::GetInstallationPath();
    EXPECT_TRUE(SDK::FileUtils::IsFile(found + "lib/libsdk.so")) << found;
    PathUtils::SetInstallationPath("/opt/x");
    EXPECT_EQ(PathUtils::GetInstallationPath(), "/opt/x/");
    PathUtils::SetInstallationPath("");
    EXPECT_EQ(PathUtils::GetInstallationPath(), found);
}

TEST(Path, Directory_EndsBeforeTheLastSlash) {
    EXPECT_EQ(PathUtils::GetDirFromPath("/a/b"), "/a");
    EXPECT_EQ(PathUtils::GetDirFromPath("/a/b/"), "/a");
    EXPECT_EQ(PathUtils::GetDirFromPath("/a"), "/");
    EXPECT_EQ(PathUtils::GetDirFromPath("/"), "/");
    EXPECT_EQ(PathUtils::GetDirFromPath("a/b"), "a");
    EXPECT_EQ(PathUtils::GetDirFromPath("a"), "");
    EXPECT_EQ(PathUtils::GetDirFromPath("a/"), "");
    EXPECT_EQ(PathUtils::GetDirFromPath(""), "");
}

TEST(Strings, TrimAndFormat_TakeAnyLength) {
    std::string text = " \t\r\n a b\n";
    SDK::StrUtils::Trim(text);
    EXPECT_EQ(text, "a b");
    text = " \n ";
    SDK::StrUtils::Trim(text);
    EXPECT_EQ(text, "");
    const std::string many(100000, 'x');
    EXPECT_EQ(SDK::StrUtils::Format("%s-%d", many.c_str(), 5), many + "-5");
    EXPECT_EQ(SDK::StrUtils::Format("%s", ""), "");
}

TEST(Time, LocalTime_HasItsZone) {
    ::setenv("TZ", "XYZ-1", 1);
    ::tzset();
    EXPECT_EQ(SDK::TimeUtils::FormatLocalTime(0), "1970-01-01T01:00:00+0100");
}

TEST(Identifiers, Uuids_AreRandomAndLowerCase) {
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const std::string id = SDK::CryptoCodeUtils::GenerateUUID();
        ASSERT_EQ(id.size(), 36U);
        EXPECT_EQ(id[14], '4') << id;  // the version of random ones
        EXPECT_EQ(id.find_first_not_of("0123456789abcdef-"), std::string::npos) << id;
        EXPECT_TRUE(seen.insert(id).second);
    }
}

TEST(LocalAddresses, Loopback_IsListedWhenAskedFor) {
    std::vector<std::string> list{"left over"};
    ASSERT_EQ(SDK::IpUtils::GetLocalIpList(list, true), 0);
    EXPECT_EQ(std::count(list.begin(), list.end(), "127.0.0.1"), 1);
    ASSERT_EQ(SDK::IpUtils::GetLocalIpList(list, false), 0);
    EXPECT_EQ(std::count(list.begin(), list.end(), "127.0.0.1"), 0);
    EXPECT_EQ(std::count(list.begin(), list.end(), "left over"), 0);
}

TEST(CpuLimit, BusyThread_RestsForItsShareUnlessInterrupted) {
    using SDK::InnerCpuCtrlUtils;
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    InnerCpuCtrlUtils::SetLimitPercent(25);
    EXPECT_TRUE(InnerCpuCtrlUtils::IsEnabled());
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
    InnerCpuCtrlUtils::SetLimitPercent(-5);
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
}

}  // namespace
