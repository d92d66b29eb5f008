#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>

#include "fixtures/Protection.h"
#include "places/MountTable.h"
#include "support/Isolation.h"

namespace {

namespace fs = std::filesystem;

TEST(MountTable, Mountinfo_IsReadWithEscapesAndOptionalFields) {
    const auto mounts = Engine::ParseMounts(
        "29 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "40 29 0:45 /from /srv/a\\040b\\134 rw shared:2 master:1 - tmpfs none rw,size=1k\n"
        "a line of another form\n");
    ASSERT_EQ(mounts.size(), 2U);
    EXPECT_EQ(mounts.begin()->point + mounts.begin()->source + mounts.begin()->type, "/8:1 /ext4");
    const Engine::Mount& last = *mounts.rbegin();
    EXPECT_EQ(last.point + "|" + last.source + "|" + last.type, "/srv/a b\\|0:45 /from|tmpfs");
}

/// A site with the real modules.
class Mounts : private test::OwnMounts, public test::Protection {
  protected:
    void SetUp() override {
        if (!is_own) GTEST_SKIP() << "a mount namespace of its own is not permitted here";
        other_.Write("page.html", "foreign");
    }
    void Mount(const std::string& at) {
        ASSERT_EQ(::mount(other_.Path().c_str(), at.c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    void Begin() {
        Protect();
        AwaitBackup();
    }
    std::string Problem() {
        return Ask("status.sentrel")["protected_paths"][0]["problem"].asString();
    }
    bool HasProblem(const std::string& text) {
        return test::WaitFor([&] { return Problem() == text; }, std::chrono::seconds(20));
    }
    /// What is mounted over `point` is told at `told` and left alone. When it is gone, what was
    /// changed below it is undone.
    void ExpectMountIsHandled(const std::string& point, const std::string& told) {
        Begin();
        const int page = ::open(site_.Path("sub/page.html").c_str(), O_WRONLY | O_CLOEXEC);
        Mount(point);
        const std::string text = Type() + " is mounted at " + point;
        EXPECT_TRUE(HasProblem(text)) << Problem();
        EXPECT_EQ(Alarm(told)["outcome"], "not protected: " + text);
        EXPECT_EQ(::pwrite(page, "evil", 4, 0), 4);
        ::close(page);
        EXPECT_EQ(Foreign(), "page.html: foreign\n");
        ASSERT_EQ(::umount2(point.c_str(), MNT_DETACH), 0);
        EXPECT_TRUE(HasProblem("")) << Problem();
        EXPECT_TRUE(Becomes(site_.Path("sub/page.html"), "page"));
        EXPECT_EQ(Foreign(), "page.html: foreign\n");
    }
    std::string Foreign() const {
        std::string text;
        for (const auto& file : fs::directory_iterator(other_.Path())) {
            text +=
                file.path().filename().string() + ": " + test::TempDir::Read(file.path()) + "\n";
        }
        return text;
    }
    std::string Type() const {
        std::string type;
        std::ifstream file("/proc/self/mountinfo");
        const std::string text((std::istreambuf_iterator<char>(file)), {});
        for (const Engine::Mount& mount : Engine::ParseMounts(text)) {
            if (other_.Path().rfind(mount.point, 0) == 0) type = mount.type;
        }
        return type;
    }

    test::TempDir other_;
};

TEST_F(Mounts, MountBelowTheProtectedPath_IsToldAndLeftAlone) {
    ExpectMountIsHandled(site_.Path("sub"), site_.Path("sub"));
}

TEST_F(Mounts, MountOverTheProtectedPath_IsToldAndNotFollowed) {
    ExpectMountIsHandled(site_.Path(), site_.Path() + "/");
}

TEST_F(Mounts, MountOfBefore_IsNormal) {
    site_.Write("mounted/below", "");
    Mount(site_.Path("mounted"));
    Begin();
    EXPECT_EQ(Problem(), "");
    std::ofstream(site_.Path("mounted/page.html")) << "defaced";
    EXPECT_TRUE(Becomes(site_.Path("mounted/page.html"), "foreign"));
    ASSERT_EQ(::umount2(site_.Path("mounted").c_str(), MNT_DETACH), 0);
    EXPECT_TRUE(HasProblem(Type() + " is no longer mounted at " + site_.Path("mounted")));
}

}  // namespace
