#include <gtest/gtest.h>
#include <sdk/files/PlaceTrust.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "OpenAcl.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using SDK::PlaceTrust;

constexpr uid_t kOther = 33;

/// Directories that belong to this process's user below one that keeps others out.
class PlaceTrustTest : public testing::Test {
  protected:
    std::string Dir(const std::string& name, mode_t mode = 0755) const {
        fs::create_directories(dir_.Path(name));
        ::chmod(dir_.Path(name).c_str(), mode);
        return dir_.Path(name);
    }
    static void Give(const std::string& path, uid_t user = kOther) {
        ASSERT_EQ(::lchown(path.c_str(), user, 0), 0) << path;
    }
    static bool Has(const std::string& why, const std::string& part) {
        return why.find(part) != std::string::npos;
    }
    static bool IsRoot() { return ::geteuid() == 0; }

    const test::TempDir dir_;
};

TEST_F(PlaceTrustTest, OwnPlaces_AreSafeWhetherTheyExistOrNot) {
    Dir("a/b");
    dir_.Write("a/file", "x");
    fs::create_symlink("../a/./b", dir_.Path("a/link"));
    for (const std::string name :
         {"a", "a/b/", "a//b", "a/file", "a/link", "a/b/../link/", "new", "a/link/new/deep"}) {
        EXPECT_EQ(PlaceTrust::WhyWritable(dir_.Path(name)), "") << name;
        EXPECT_EQ(PlaceTrust::WhyReachable(dir_.Path(name)), "") << name;
        EXPECT_EQ(PlaceTrust::WhyReplaceable(dir_.Path(name)), "") << name;
    }
    EXPECT_EQ(PlaceTrust::WhyWritable("/"), "");
    for (const std::string path : {"", "a/b"}) EXPECT_NE(PlaceTrust::WhyWritable(path), "");
    EXPECT_TRUE(Has(PlaceTrust::WhyWritable(dir_.Path("a/file/x")), "Not a directory"));
}

TEST_F(PlaceTrustTest, DirectoryThatOthersMayWrite_IsNamedWhereverItLies) {
    const std::string open = Dir("open", 0777);
    Dir("open/below");
    for (const std::string name : {"open", "open/below", "open/new", "open/below/new"}) {
        EXPECT_EQ(PlaceTrust::WhyWritable(dir_.Path(name)), "every user may write to " + open);
        EXPECT_NE(PlaceTrust::WhyReachable(dir_.Path(name)), "");
    }
    EXPECT_EQ(PlaceTrust::WhyReplaceable(open), "");
    EXPECT_NE(PlaceTrust::WhyReplaceable(dir_.Path("open/below")), "");
    const std::string group = Dir("group", 0775);
    ASSERT_EQ(::chown(group.c_str(), static_cast<uid_t>(-1), ::getegid()), 0);
    EXPECT_EQ(PlaceTrust::WhyWritable(group).empty(), ::getegid() == 0);
    if (!IsRoot()) GTEST_SKIP() << "the rest needs root";
    ASSERT_EQ(::chown(group.c_str(), 0, kOther), 0);
    EXPECT_EQ(PlaceTrust::WhyWritable(group), "group 33 may write to " + group);
}

TEST_F(PlaceTrustTest, StickyDirectory_KeepsOnlyWhatIsOurs) {
    Dir("sticky", 01777);
    const std::string own = Dir("sticky/own");
    EXPECT_EQ(PlaceTrust::WhyWritable(own + "/new"), "");
    EXPECT_NE(PlaceTrust::WhyWritable(dir_.Path("sticky")), "");
    EXPECT_NE(PlaceTrust::WhyWritable(dir_.Path("sticky/new")), "") << "others may make it first";
    if (!IsRoot()) GTEST_SKIP() << "the rest needs root";
    Give(own);
    EXPECT_EQ(PlaceTrust::WhyReplaceable(own), "the directory " + own + " belongs to user 33");
    Give(dir_.Path("sticky"));
    Give(own, 0);
    EXPECT_NE(PlaceTrust::WhyWritable(own), "") << "its owner may rename what lies in it";
}

TEST_F(PlaceTrustTest, DirectoryAboveOrLinkOfAnotherUser_IsNamed) {
    if (!IsRoot()) GTEST_SKIP() << "needs root";
    const std::string theirs = Dir("theirs");
    Dir("theirs/root/b");
    Give(theirs);
    const std::string why = "the directory " + theirs + " belongs to user 33";
    EXPECT_EQ(PlaceTrust::WhyWritable(theirs), why);
    EXPECT_EQ(PlaceTrust::WhyWritable(dir_.Path("theirs/root/b")), why);
    EXPECT_EQ(PlaceTrust::WhyReplaceable(dir_.Path("theirs/root")), why);
    EXPECT_EQ(PlaceTrust::WhyReplaceable(theirs), "") << "a site may belong to its user";
    const std::string own = Dir("own");
    fs::create_symlink(dir_.Path("theirs/root"), dir_.Path("into"));
    EXPECT_EQ(PlaceTrust::WhyWritable(dir_.Path("into/b")), why) << "the target's way counts";
    fs::create_symlink(own, dir_.Path("theirs/out"));
    EXPECT_EQ(PlaceTrust::WhyWritable(dir_.Path("theirs/out")), why) << "and the link's";
    fs::create_symlink(own, dir_.Path("link"));
    EXPECT_EQ(PlaceTrust::WhyWritable(dir_.Path("link")), "");
    Give(dir_.Path("link"));
    EXPECT_EQ(PlaceTrust::WhyWritable(dir_.Path("link")),
              "the link " + dir_.Path("link") + " belongs to user 33");
    fs::create_symlink("loop", dir_.Path("loop"));
    EXPECT_TRUE(Has(PlaceTrust::WhyWritable(dir_.Path("loop/x")), "too many links"));
}

TEST_F(PlaceTrustTest, DirectoryThatOthersMayEnter_IsNoPlaceForWhatBelongsToThem) {
    ::chmod(dir_.Path().c_str(), 0755);
    const std::string copies = Dir("copies", 0755);
    EXPECT_EQ(PlaceTrust::WhyWritable(copies), "");
    EXPECT_TRUE(Has(PlaceTrust::WhyReachable(copies), "every user may enter " + copies));
    ::chmod(copies.c_str(), 0711);
    EXPECT_NE(PlaceTrust::WhyReachable(copies), "");
    ::chmod(copies.c_str(), 0700);
    EXPECT_EQ(PlaceTrust::WhyReachable(copies), "");
    EXPECT_EQ(PlaceTrust::WhyReachable(Dir("copies/inner")), "");
    Dir("public");
    fs::create_symlink(dir_.Path("public"), dir_.Path("copies/way_out"));
    EXPECT_NE(PlaceTrust::WhyReachable(dir_.Path("copies/way_out")), "") << "reached without it";
}

TEST_F(PlaceTrustTest, AccessControlList_CountsAsWritable) {
    if (!IsRoot()) GTEST_SKIP() << "needs root";
    const std::string place = Dir("place", 0700);
    if (::setxattr(place.c_str(), "system.posix_acl_access", test::kOpenAcl.data(),
                   test::kOpenAcl.size(), 0) != 0) {
        GTEST_SKIP() << "the file system has no access control lists";
    }
    EXPECT_TRUE(Has(PlaceTrust::WhyWritable(place), "access control list"));
}

}  // namespace
