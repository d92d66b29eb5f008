#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "fixtures/Protection.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::Protection;

TEST_F(Protection, DuringALongFirstBackup_NothingIsDeletedAndChangesAreHandledAfterwards) {
    const std::string gate = install_.dir.Path("gate");
    ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
    // The backup waits before it copies and again before it ends.
    const std::string copied = install_.dir.Path("copied");
    Protect(install_.WriteScript("slow_rsync", "case \"$*\" in *' -R '*) read x <" + gate +
                                                   "; /usr/bin/rsync \"$@\" || exit; touch " +
                                                   copied + "; read x <" + gate +
                                                   ";; *) exec /usr/bin/rsync \"$@\";; esac"));
    const auto open_gate = [&] { std::ofstream(gate) << "go\n"; };
    const std::string deployed = site_.Write("deployed/a.html", "legitimate");
    ::chmod(site_.Path("sub").c_str(), 0711);
    EXPECT_EQ(Alarm(site_.Path("deployed/"))["outcome"], "reported only");
    EXPECT_EQ(Alarm(site_.Path("sub/"))["outcome"], "reported only");

    open_gate();
    ASSERT_TRUE(test::WaitFor([&] { return fs::exists(copied); }, 20s));
    const std::string shell = site_.Write("shell.php", "evil");
    ::chmod(site_.Path("deployed").c_str(), 0777);
    fs::remove_all(site_.Path("sub"));
    EXPECT_EQ(Alarm(shell)["outcome"], "reported only");
    const std::string index = site_.Write("index.html", "defaced");
    EXPECT_TRUE(Becomes(index, "welcome"));
    EXPECT_TRUE(fs::exists(shell));

    open_gate();
    EXPECT_TRUE(Becomes(site_.Path("sub/page.html"), "page"));
    EXPECT_TRUE(test::WaitFor([&] { return !fs::exists(shell); }, 20s));
    EXPECT_TRUE(test::WaitFor(
        [&] {
            return fs::status(site_.Path("deployed")).permissions() == fs::perms(0755) &&
                   fs::status(site_.Path("sub")).permissions() == fs::perms(0711);
        },
        20s));
    EXPECT_EQ(test::TempDir::Read(deployed), "legitimate");
    AwaitBackup();
}

}  // namespace
