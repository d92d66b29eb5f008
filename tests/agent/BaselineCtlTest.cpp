#include <ctl/Cli.h>
#include <ctl/baselines/ProgressDisplay.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <fstream>

#include "support/ApprovedSite.h"

namespace {

namespace fs = std::filesystem;

/// Runs morvanectl in this process.
class BaselineCtl : public ::testing::Test {
  protected:
    int Run(std::vector<const char*> arguments) {
        arguments.insert(arguments.begin(), "morvanectl");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = Ctl::Main(static_cast<int>(arguments.size()), arguments.data());
        out_ = testing::internal::GetCapturedStdout();
        errors_ = testing::internal::GetCapturedStderr();
        return code;
    }

    /// The lines of the output that tell differences, with "SITE" for the site.
    std::string Differences() const {
        std::string lines;
        for (std::size_t at = 0; at < out_.size();) {
            const std::size_t end = out_.find('\n', at);
            std::string line = out_.substr(at, end + 1 - at);
            at = end + 1;
            const std::size_t path = line.find(site_.Path());
            if (path == std::string::npos || line.find("generation") == 0) continue;
            lines += line.replace(path, site_.Path().size(), "SITE");
        }
        return lines;
    }

    void Attack() {
        site_.Write("index.html", "PAGE\n");
        site_.Write("cache/x", "excluded");
        site_.Write("a/\x1b[2J\xff.php", "x");
        ::chmod(site_.Path("a").c_str(), 0700);
        fs::remove(site_.Path("home"));
        fs::create_directories(site_.Path("new/below"));
    }

    std::size_t FilesOfInstallation() const {
        if (!fs::exists(site_.Data())) return 0;
        const fs::recursive_directory_iterator all(site_.Data());
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }

    test::ApprovedSite site_;
    std::string out_;
    std::string errors_;
};

constexpr char kMode[] = "mode 0755 -> 0700\n";

TEST_F(BaselineCtl, Verify_ListsWhatDiffersAndOnlyThat) {
    ::chmod(site_.Path("a").c_str(), 0755);
    site_.Approve("first");
    EXPECT_EQ(Run({"verify"}), 0) << errors_;
    EXPECT_EQ(out_.find("generation 1 of " + site_.Path()), 0U) << out_;
    EXPECT_NE(out_.find("\nequal; 5 objects"), std::string::npos) << out_;
    Attack();
    const std::string below_a =
        std::string("attributes  SITE/a  ") + kMode + "added       SITE/a/\\x1b[2J\\xff.php\n";
    EXPECT_EQ(Run({"verify"}), 2) << errors_;
    EXPECT_EQ(Differences(), below_a + "missing     SITE/home\n" +
                                 "changed     SITE/index.html  content\n" +
                                 "added       SITE/new  directory with all below it\n");
    EXPECT_NE(out_.find("\n5 differences: 1 changed, 1 attributes, 2 added, 1 missing; "),
              std::string::npos)
        << out_;
    EXPECT_EQ(Run({"verify", (site_.Path() + "/a/").c_str()}), 2) << errors_;
    EXPECT_EQ(Differences(), below_a);
    EXPECT_EQ(Run({"verify", site_.Path("a/../new").c_str()}), 2) << errors_;
    EXPECT_EQ(Differences(), "added       SITE/new  directory with all below it\n");
    EXPECT_EQ(Run({"verify", "--limit", "1"}), 2) << errors_;
    EXPECT_EQ(Differences(), std::string("attributes  SITE/a  ") + kMode);
    EXPECT_NE(out_.find("\nand 4 more\n"), std::string::npos) << out_;
    EXPECT_EQ(Run({"verify", "--json", "--limit", "2"}), 2) << errors_;
    EXPECT_NE(out_.find("\"path_bytes\":\"" + site_.Path() + "/a/%1B[2J%FF.php\""),
              std::string::npos)
        << out_;
    EXPECT_NE(out_.find("\"differences\":5,\"listed\":2,"), std::string::npos) << out_;
}

TEST_F(BaselineCtl, ProtectedFile_IsComparedAlone) {
    site_.Approve("first", "index.html");
    const std::string page = site_.Path("index.html");
    EXPECT_EQ(Run({"verify", "--full"}), 0) << out_ << errors_;
    EXPECT_EQ(Run({"diff", page.c_str()}), 0) << errors_;
    Attack();
    EXPECT_EQ(Run({"verify", page.c_str()}), 2) << errors_;
    EXPECT_EQ(Differences(), "changed     SITE/index.html  content\n");
    EXPECT_EQ(Run({"diff", page.c_str()}), 2) << errors_;
    EXPECT_EQ(Run({"verify", "--copies"}), 0) << out_ << errors_;
    fs::remove(page);
    EXPECT_EQ(Run({"verify"}), 2) << errors_;
    EXPECT_EQ(Differences(), "missing     SITE/index.html\n");
    EXPECT_EQ(Run({"verify", (page + "/x").c_str()}), 1);
    EXPECT_EQ(Run({"verify", site_.Path("a").c_str()}), 1);
}

TEST_F(BaselineCtl, LinksToASite_AreFollowedAndThoseInItAreNot) {
    site_.Approve("first");
    site_.Write("a/new", "x");
    const test::TempDir elsewhere;
    const std::string release = elsewhere.Path("release");
    fs::create_directory_symlink(site_.Path(), release);
    site_.WritePolicy(release);
    EXPECT_EQ(Run({"verify"}), 2) << errors_;
    for (const char* name : {"", "/", "/a", "/a/new", "/none/../a"}) {
        EXPECT_EQ(Run({"verify", (release + name).c_str()}), 2) << name << errors_;
        EXPECT_EQ(Differences(), "added       SITE/a/new\n");
    }
    fs::create_directory_symlink("a", site_.Path("b"));
    EXPECT_EQ(Run({"verify", (release + "/b/new").c_str()}), 1) << out_;
    EXPECT_EQ(Run({"verify", (release + "/b").c_str()}), 2) << out_;
    EXPECT_EQ(Differences(), "added       SITE/b\n");
}

TEST_F(BaselineCtl, PathThatThePolicyNoLongerNames_IsComparedOnlyWhenAsked) {
    site_.Approve("first");
    site_.WritePolicy("/other");
    site_.Write("index.html", "PAGE\n");
    EXPECT_EQ(Run({"verify"}), 1) << out_;
    EXPECT_EQ(errors_.find("There is no usable approved state of /other.\n"), 0U) << errors_;
    EXPECT_NE(errors_.find("no longer names " + site_.Path()), std::string::npos) << errors_;
    EXPECT_EQ(Run({"verify", site_.Path().c_str()}), 2) << errors_;
}

TEST_F(BaselineCtl, PathThatThePolicyNoLongerNames_IsListedAndForgotten) {
    site_.Approve("first");
    const std::string kept = site_.Backup() + "/.morvane-generations/";
    const std::string name =
        Baseline::BaselineStore::NameOf(site_.Path() + "/", site_.Backup() + "/");
    fs::create_directories(kept + name + "/1.1/a");
    fs::create_directories(kept + "another");
    site_.WritePolicy(site_.Path());
    EXPECT_EQ(Run({"baseline", "list"}), 0);
    EXPECT_EQ(out_.find("no longer protected"), std::string::npos) << out_;
    EXPECT_EQ(Run({"baseline", "forget", site_.Path().c_str()}), 4);
    site_.WritePolicy("/other");
    EXPECT_EQ(Run({"baseline", "list"}), 0);
    EXPECT_NE(out_.find("no longer protected"), std::string::npos) << out_;
    EXPECT_EQ(Run({"baseline", "forget", "/unknown"}), 1);
    EXPECT_TRUE(fs::exists(kept + name));
    EXPECT_EQ(Run({"baseline", "forget", site_.Path().c_str()}), 0) << errors_;
    EXPECT_FALSE(fs::exists(kept + name));
    EXPECT_TRUE(fs::exists(kept + "another"));
    EXPECT_TRUE(fs::exists(site_.Copy("index.html")));
    EXPECT_EQ(Run({"baseline", "list"}), 1);
}

TEST_F(BaselineCtl, VerifyOfCopies_FindsWhatSomebodyDidToThem) {
    site_.Approve("first");
    site_.Write("index.html", "PAGE\n");
    EXPECT_EQ(Run({"verify", "--copies"}), 0) << out_;
    std::ofstream(site_.Copy("index.html")) << "PAGE\n";
    EXPECT_EQ(Run({"verify", "--copies"}), 2) << out_;
    EXPECT_NE(out_.find(site_.Copy("index.html") + "  content\n"), std::string::npos) << out_;
}

TEST_F(BaselineCtl, WhatCannotBeVerified_IsAFailureAndChangesNothing) {
    EXPECT_EQ(Run({"verify"}), 1);
    EXPECT_NE(errors_.find("No state is approved yet"), std::string::npos) << errors_;
    fs::create_directories(site_.Data());
    EXPECT_EQ(Run({"verify"}), 1);
    EXPECT_NE(errors_.find("There is no key"), std::string::npos) << errors_;
    EXPECT_EQ(FilesOfInstallation(), 0U);
    site_.Approve("first");
    EXPECT_EQ(Run({"verify", "/other"}), 1);
    EXPECT_EQ(errors_, "There is no approved state of /other.\n");
    EXPECT_EQ(Run({"verify", site_.Path("cache/x").c_str()}), 1);
    EXPECT_NE(errors_.find("excluded"), std::string::npos) << errors_;
    EXPECT_EQ(Run({"verify", site_.Path("home/x").c_str()}), 1);
    EXPECT_NE(errors_.find("neither"), std::string::npos) << errors_;
    const std::size_t files = FilesOfInstallation();
    for (const auto& entry : fs::recursive_directory_iterator(site_.Data())) {
        if (entry.path().extension() == ".signature") fs::resize_file(entry.path(), 10);
    }
    EXPECT_EQ(Run({"verify"}), 1);
    EXPECT_NE(errors_.find("1.manifest does not fit"), std::string::npos) << errors_;
    EXPECT_EQ(FilesOfInstallation(), files);
}

TEST_F(BaselineCtl, ProtectedPathThatIsGone_IsADifference) {
    site_.Approve("first");
    fs::rename(site_.Path(), site_.Path() + ".moved");
    EXPECT_EQ(Run({"verify"}), 2) << errors_;
    EXPECT_EQ(Differences(), "missing     SITE  directory with all below it\n");
    fs::create_directory_symlink(site_.Path() + ".moved", site_.Path());
    EXPECT_EQ(Run({"verify"}), 2) << errors_;
    EXPECT_EQ(Differences(), "changed     SITE  type\n");
    fs::remove(site_.Path());
    fs::rename(site_.Path() + ".moved", site_.Path());
}

TEST_F(BaselineCtl, Generations_AreListedAndComparedByTheirManifests) {
    ::chmod(site_.Path("a").c_str(), 0755);
    site_.Approve("first\x1b");
    Attack();
    site_.Approve("second");
    EXPECT_EQ(Run({"baseline", "list"}), 0) << errors_;
    EXPECT_NE(out_.find("generation 1    2001-09-09"), std::string::npos) << out_;
    EXPECT_NE(out_.find("5 objects  signature good  first\\x1b\n"), std::string::npos) << out_;
    EXPECT_NE(out_.find("signature good  second\n"), std::string::npos) << out_;
    EXPECT_EQ(Run({"baseline", "diff", "1"}), 2) << errors_;
    EXPECT_EQ(Differences(), std::string("attributes  SITE/a  ") + kMode +
                                 "added       SITE/a/\\x1b[2J\\xff.php\n" +
                                 "missing     SITE/home\n" +
                                 "changed     SITE/index.html  content\n" +
                                 "added       SITE/new  directory with all below it\n");
    EXPECT_EQ(Run({"baseline", "diff", "2", "1", "--path", site_.Path("new").c_str()}), 2);
    EXPECT_EQ(Differences(), "missing     SITE/new  directory with all below it\n");
    EXPECT_EQ(Run({"baseline", "diff", "2", "2"}), 0);
    EXPECT_EQ(Run({"baseline", "diff", "2", "1", "--path", site_.Path("none").c_str()}), 0);
    EXPECT_EQ(Run({"baseline", "diff", "3"}), 1);
    EXPECT_NE(errors_.find("it is not kept"), std::string::npos) << errors_;
    for (const auto& entry : fs::recursive_directory_iterator(site_.Data())) {
        if (entry.path().filename() == "1.signature") fs::resize_file(entry.path(), 10);
    }
    EXPECT_EQ(Run({"baseline", "list"}), 1);
    EXPECT_NE(out_.find("generation 1  cannot be used: the signature"), std::string::npos) << out_;
    EXPECT_EQ(Run({"baseline", "diff", "1"}), 1);
}

TEST_F(BaselineCtl, Diff_ShowsWhatOnePageHasDifferently) {
    site_.Write("image", std::string("\0\1", 2));
    ::chmod(site_.Path("a").c_str(), 0755);
    site_.Approve("first");
    // Not every file system takes these.
    const bool has_attribute =
        ::setxattr(site_.Path("a/style.css").c_str(), "user.\x1b", "x", 1, 0) == 0;
    EXPECT_EQ(Run({"diff", site_.Path("index.html").c_str()}), 0) << errors_;
    EXPECT_EQ(out_ + errors_, "equal\n");
    EXPECT_EQ(Run({"diff", site_.Path().c_str()}), 0) << errors_;
    Attack();
    site_.Write("index.html", "PAGE\x1b[2J\n");
    site_.Write("image", std::string("\0\2\3", 3));
    fs::create_symlink("/etc/passwd", site_.Path("home"));
    const std::string labels =
        "--- " + site_.Copy("index.html") + "\n+++ " + site_.Path("index.html") + "\n";
    struct Row {
        const char* name;
        int code;
        std::string out;
    };
    for (const Row& row : std::vector<Row>{
             {"index.html", 2, labels + "@@ -1 +1 @@\n-page\n+PAGE\\x1b[2J\n"},
             {"image", 2, "content, not text: 2 -> 3 bytes\n"},
             {"home", 2, "link to index.html -> /etc/passwd\n"},
             {"a", 2, kMode},
             {"a/style.css", has_attribute ? 2 : 0,
              has_attribute ? "added attribute user.\\x1b\n" : "equal\n"},
             {"new", 2, "added: there is no backup copy of " + site_.Path("new") + "\n"},
             {"none", 1, ""},
             {"home/x", 1, ""},
             {"cache/x", 1, ""},
         }) {
        EXPECT_EQ(Run({"diff", site_.Path(row.name).c_str()}), row.code) << row.name << errors_;
        EXPECT_EQ(out_, row.out);
        EXPECT_EQ(errors_.empty(), row.code != 1) << errors_;
    }
    std::ofstream(site_.Copy("index.html")) << "else\n";
    EXPECT_EQ(Run({"diff", site_.Path("index.html").c_str()}), 2);
    EXPECT_NE(errors_.find("not what was approved"), std::string::npos) << errors_;
    fs::remove(site_.Path("index.html"));
    ASSERT_EQ(::mkfifo(site_.Path("index.html").c_str(), 0644), 0);
    EXPECT_EQ(Run({"diff", site_.Path("index.html").c_str()}), 2);
    EXPECT_EQ(out_, "type file -> pipe\n");
}

TEST(ProgressText, BarRatesAndTimeLeft_FitTheTerminal) {
    const Ctl::ComparisonProgress half{500, 1000, 3'000'000};
    EXPECT_EQ(Ctl::FormatProgress(half, 10, 0), " 50 %  500 of 1000, 50/s, 300.0 kB/s, 10 s left");
    EXPECT_EQ(Ctl::FormatProgress(half, 10, 40), "[========        ]  50 %  500 of 1000, 5");
    EXPECT_EQ(Ctl::FormatProgress({0, 0, 0}, 0, 0), "100 %  0 of 0");
    EXPECT_EQ(Ctl::FormatProgress({1200, 1000, 0}, 10, 0),
              "100 %  1200 of 1200, 120/s, 0 bytes/s, 0 s left");
}

}  // namespace
