#include <arpa/inet.h>
#include <fcntl.h>
#include <sdk/commands/ProcessUtils.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <utility>
#include <vector>

#include "support/ProtectedSite.h"

namespace {

using Protection = test::ProtectedSite;
using test::TempDir;

/// A free loopback port.
int FreePort() {
    const SDK::FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_TRUE(::bind(socket.Get(), generic, size) == 0 &&
                ::getsockname(socket.Get(), generic, &size) == 0);
    return ntohs(address.sin_port);
}

TEST_F(Protection, Tampering_IsUndoneAndReported) {
    Protect();
    EXPECT_TRUE(agent_.Status()["rsync"]["preload"]["in_use"].asBool()) << agent_.Status();
    EXPECT_TRUE(TamperingIsUndone("index.html"));
    std::filesystem::remove(site_.Path("about.html"));
    EXPECT_TRUE(Await([&] { return std::filesystem::exists(site_.Path("about.html")); }));
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("modify", site_.Path("index.html")); }));
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("delete", site_.Path("about.html")); }));
    const std::string page = agent_.Ctl({"alarms", "--all", "--since", "60"}).out;
    EXPECT_NE(page.find("modify     " + site_.Path("index.html") + "  restored in "),
              std::string::npos)
        << page;
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Protection, WriteThroughAHardLinkElsewhere_IsFoundAndUndone) {
    std::ofstream(agent_.Path("conf/agent.json")) << R"({"sentrel": {"reconcile_seconds": 1}})";
    Protect();
    const std::string page = site_.Path("index.html");
    const std::string good = test::TempDir::Read(page);
    const test::TempDir elsewhere;
    std::filesystem::create_hard_link(page, elsewhere.Path("link"));
    std::ofstream(elsewhere.Path("link")) << "defaced";
    EXPECT_TRUE(Await([&] { return test::TempDir::Read(page) == good; }));
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("modify", page); }));
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Protection, AclOfAPage_StaysWithARestoreAndIsPutBack) {
    constexpr const char* kAcl = "system.posix_acl_access";
    // It names user 33 and leaves the mode as it is.
    const std::string acl(
        "\2\0\0\0\1\0\6\0\xff\xff\xff\xff\2\0\4\0\x21\0\0\0\4\0\4\0\xff\xff\xff\xff"
        "\x10\0\4\0\xff\xff\xff\xff\x20\0\4\0\xff\xff\xff\xff",
        44);
    const auto have_acls = [&] {
        return ::getxattr(site_.Path("about.html").c_str(), kAcl, nullptr, 0) > 0 &&
               ::getxattr(site_.Path("news.html").c_str(), kAcl, nullptr, 0) > 0;
    };
    for (const char* name : {"about.html", "news.html"}) {
        ASSERT_EQ(::setxattr(site_.Path(name).c_str(), kAcl, acl.data(), acl.size(), 0), 0);
    }
    Protect();
    EXPECT_TRUE(TamperingIsUndone("about.html"));
    ASSERT_EQ(::removexattr(site_.Path("news.html").c_str(), kAcl), 0);
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("attribute", site_.Path("news.html")); }));
    EXPECT_TRUE(Await(have_acls)) << agent_.Status();
    EXPECT_EQ(agent_.Stop(), 0);
}

/// Owner, group, mode and file capabilities.
std::string AttributesOf(const std::string& path) {
    struct stat info {};
    std::array<char, 64> capabilities{};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    const ssize_t size =
        ::lgetxattr(path.c_str(), "security.capability", capabilities.data(), capabilities.size());
    return std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid) + " " +
           std::to_string(info.st_mode) + " " +
           std::string(capabilities.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

TEST_F(Protection, PagesOfAnotherUser_KeepOwnerModeAndCapabilities) {
    constexpr uid_t kUser = 33;
    constexpr gid_t kGroup = 34;
    const std::string capabilities("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
    const std::vector<std::pair<std::string, mode_t>> modes = {
        {"cgi/secret.html", 0600}, {"cgi/shared.sh", 02755}, {"cgi/server", 0755}, {"cgi", 02700}};
    std::map<std::string, std::string> good;
    for (const auto& [name, mode] : modes) {
        const std::string path = name == "cgi" ? site_.Path(name) : site_.Write(name, Good(name));
        ASSERT_TRUE(::chown(path.c_str(), kUser, kGroup) == 0 && ::chmod(path.c_str(), mode) == 0);
    }
    ASSERT_EQ(::setxattr(site_.Path("cgi/server").c_str(), "security.capability",
                         capabilities.data(), capabilities.size(), 0),
              0);
    for (const auto& each : modes) good[each.first] = AttributesOf(site_.Path(each.first));
    Protect();
    for (const char* name : {"cgi/secret.html", "cgi/shared.sh", "cgi/server"}) {
        std::ofstream(site_.Path(name)) << "defaced";
        ASSERT_EQ(::chown(site_.Path(name).c_str(), kUser + 1, kGroup + 1), 0);
        EXPECT_TRUE(Await([&] { return TempDir::Read(site_.Path(name)) == Good(name); })) << name;
        const auto is_as_before = [&] { return AttributesOf(site_.Path(name)) == good[name]; };
        EXPECT_TRUE(Await(is_as_before)) << name << ": " << AttributesOf(site_.Path(name));
    }
    EXPECT_EQ(AttributesOf(site_.Path("cgi")), good["cgi"]);
    EXPECT_EQ(agent_.Status()["protected_paths"][0]["attributes_not_compared"], "");
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Protection, WriteThroughAMapping_IsUndoneWhenTheMappingEnds) {
    Protect();
    const std::string page = site_.Path("index.html");
    const std::string good = test::TempDir::Read(page);
    SDK::FileDescriptor file(::open(page.c_str(), O_RDWR | O_CLOEXEC));
    void* memory = ::mmap(nullptr, good.size(), PROT_WRITE, MAP_SHARED, file.Get(), 0);
    ASSERT_NE(memory, MAP_FAILED);
    file.Reset();
    std::memset(memory, '!', good.size());
    ASSERT_EQ(::munmap(memory, good.size()), 0);
    EXPECT_TRUE(Await([&] { return test::TempDir::Read(page) == good; }));
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("modify", page); }));
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Protection, KilledAgent_KeepsItsStoreAndProtectsAfterARestart) {
    Protect();
    ASSERT_TRUE(TamperingIsUndone("index.html"));
    ASSERT_TRUE(Await([&] { return agent_.HasAlarm("modify", site_.Path("index.html")); }));
    const std::size_t stored = agent_.JsonLines({"reports", "--json"}).size();
    const Json::Value id = agent_.Status()["agent_id"];
    agent_.Kill();
    ASSERT_TRUE(std::filesystem::exists(agent_.Path("run/agent.sock")));
    EXPECT_EQ(agent_.Ctl({"status"}).exit_code, 2);
    ASSERT_TRUE(agent_.Start());
    ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    EXPECT_EQ(agent_.Status()["agent_id"], id);
    EXPECT_TRUE(agent_.HasAlarm("modify", site_.Path("index.html")));
    EXPECT_GE(agent_.JsonLines({"reports", "--json"}).size(), stored);
    EXPECT_TRUE(TamperingIsUndone("news.html"));
    EXPECT_TRUE(Await([&] { return agent_.HasAlarm("modify", site_.Path("news.html")); }));
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Protection, DeletedProtectedDirectory_IsRestored) {
    Protect();
    std::error_code restored_meanwhile;
    std::filesystem::remove_all(site_.Path(), restored_meanwhile);
    EXPECT_TRUE(Await([&] {
        return test::TempDir::Read(site_.Path("img/logo.svg")) == Good("img/logo.svg") &&
               test::TempDir::Read(site_.Path("index.html")) == Good("index.html");
    }));
    ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    EXPECT_TRUE(TamperingIsUndone("news.html"));
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Protection, UnfinishedCopyOfAnEndedRsync_IsDeletedAndNeverRestored) {
    const std::string name = site_.Path("img/.logo.svg.Ab12Cd");
    backup_.Write(name.substr(1), "half");
    Protect();
    EXPECT_FALSE(std::filesystem::exists(backup_.Path() + name));
    std::error_code restored_meanwhile;
    std::filesystem::remove_all(site_.Path("img"), restored_meanwhile);
    EXPECT_TRUE(Await(
        [&] { return test::TempDir::Read(site_.Path("img/logo.svg")) == Good("img/logo.svg"); }));
    EXPECT_FALSE(std::filesystem::exists(name));
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Protection, PolicyThatWaitsForTheBackupServerDaemon_DoesNotDelayRestores) {
    Protect();
    const test::TempDir received;
    const Json::Value policy = test::BackupServerPolicy("127.0.0.1", FreePort(), received.Path());
    ASSERT_EQ(agent_.Apply(policy, "backupserver_feature"), 0);
    const auto daemon = [&] {
        const std::string text = test::TempDir::Read(agent_.Path("bin/morvane_rsyncd.pid"));
        return static_cast<unsigned int>(std::strtoul(text.c_str(), nullptr, 10));
    };
    ASSERT_TRUE(Await([&] { return daemon() != 0; })) << agent_.Status();
    // The policy rewrites the daemon's configuration after its wait.
    const auto configuration = [&] {
        std::error_code gone;
        return std::filesystem::last_write_time(agent_.Path("conf/morvane_rsync.conf"), gone);
    };
    const auto before = configuration();
    const unsigned int first = daemon();
    auto applied = std::async(std::launch::async,
                              [&] { return agent_.Apply(policy, "backupserver_feature"); });
    EXPECT_TRUE(Await([&] { return !SDK::ProcessUtils::IsProcessAlive(first); }));
    EXPECT_TRUE(TamperingIsUndone("index.html"));
    EXPECT_TRUE(configuration() == before) << "the restore waited for the policy";
    EXPECT_EQ(applied.get(), 0);
    EXPECT_TRUE(configuration() != before);
    EXPECT_TRUE(Await([&] { return daemon() != 0 && daemon() != first; })) << agent_.Status();
    EXPECT_EQ(agent_.Stop(), 0);
}

}  // namespace
