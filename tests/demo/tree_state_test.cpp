#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "site/TreeState.h"
#include "support/TempDir.h"

namespace Demo {
namespace {

// A demo that cannot see a difference would call every attack undone.
class TreeStateTest : public ::testing::Test {
  protected:
    TreeStateTest() {
        page_ = dir_.Write("site/index.html", "welcome");
        dir_.Write("site/sub/menu.js", "menu()");
        ::symlink("index.html", dir_.Path("site/home").c_str());
        before_ = TakeState(site_);
    }

    std::string Difference() const { return FindDifference(before_, site_); }

    void SetTime(const std::string& path, const struct timespec& time) const {
        const struct timespec times[2] = {time, time};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }

    test::TempDir dir_;
    std::string site_ = dir_.Path("site");
    std::string page_;
    TreeState before_;
};

TEST_F(TreeStateTest, EachKindOfChange_Seen) {
    EXPECT_EQ(Difference(), "");
    struct stat info {};
    ASSERT_EQ(::stat(page_.c_str(), &info), 0);
    dir_.Write("site/index.html", "defaced");  // as long as before
    SetTime(page_, info.st_mtim);
    EXPECT_EQ(Difference(), page_ + " has another content");
    before_ = TakeState(site_);
    ::chmod(page_.c_str(), 0777);
    EXPECT_EQ(Difference(), page_ + " has another mode");
    before_ = TakeState(site_);
    SetTime(page_, {1000000000, 0});
    EXPECT_EQ(Difference(), page_ + " has another modification time");
    ::unlink(page_.c_str());
    EXPECT_EQ(Difference(), page_ + " is missing");
    before_ = TakeState(site_);
    dir_.Write("site/sub/new.php", "");
    EXPECT_EQ(Difference(), site_ + "/sub/new.php should not be there");
    std::filesystem::rename(dir_.Path("site/sub"), dir_.Path("moved"));
    ::symlink(dir_.Path("moved").c_str(), dir_.Path("site/sub").c_str());
    before_ = TakeState(site_);
    std::filesystem::remove(dir_.Path("site/sub"));
    std::filesystem::rename(dir_.Path("moved"), dir_.Path("site/sub"));
    EXPECT_EQ(Difference(), site_ + "/sub is of another kind");
}

}  // namespace
}  // namespace Demo
