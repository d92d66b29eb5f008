#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/text/PercentCode.h>
#include <unistd.h>

#include "shield/Healer.h"
#include "support/ApprovedSite.h"
#include "support/FileSizeLimit.h"

namespace {

using test::TempDir;

/// A page of an approved site that was changed, and a healer's attempt.
class ChangedPage : public testing::Test {
  protected:
    static constexpr char kPage[] = "index.html";
    static constexpr char kEvil[] = "defaced by somebody\n";

    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(site_.Approve("test"));
        Json::Value given;
        given["path"] = SDK::PercentEncode(site_.Path() + "/");
        given["backup"] = SDK::PercentEncode(site_.Backup() + "/");
        given["mode"] = "heal";
        given["generation"] = 1;
        for (const char* list : {"prefixes", "suffixes"}) {
            given[list] = Json::Value(Json::arrayValue);
        }
        std::string error;
        rule_ = Sentry::ShieldRule::Read(given, site_.Data(), error);
        ASSERT_NE(rule_, nullptr) << error;
        site_.Write(kPage, kEvil);
    }

    /// Heals what the page's name leads to now; afterwards `meanwhile` has happened to the name.
    std::string Heal(const std::function<void()>& meanwhile = [] {}) {
        const auto root = SDK::PathAnchor::Open(site_.Path());
        const SDK::FileDescriptor file(::open(site_.Path(kPage).c_str(), O_RDONLY | O_CLOEXEC));
        meanwhile();
        return Sentry::Healer::Heal(*rule_, *root, kPage, *rule_->manifest->Find(kPage), file.Get(),
                                    most_bytes_, [this](int content) {
                                        char text[64];
                                        const ssize_t size =
                                            ::pread(content, text, sizeof(text), 0);
                                        kept_.assign(text, static_cast<std::size_t>(size));
                                    });
    }
    std::string Page() const { return TempDir::Read(site_.Path(kPage)); }

    test::ApprovedSite site_;
    std::shared_ptr<const Sentry::ShieldRule> rule_;
    std::uint64_t most_bytes_ = 4096;
    std::string kept_;
};

TEST_F(ChangedPage, WithItsCopy_IsPutRightAndKept) {
    EXPECT_EQ(Heal(), "");
    EXPECT_EQ(Page(), "page\n");
    EXPECT_EQ(kept_, kEvil);
}

TEST_F(ChangedPage, ThatIsUnlinkedMeanwhile_IsPutRightForWhoHasItOpen) {
    const SDK::FileDescriptor visitor(::open(site_.Path(kPage).c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(Heal([this] { std::filesystem::remove(site_.Path(kPage)); }), "");
    char text[64];
    EXPECT_EQ(std::string(text, static_cast<std::size_t>(::read(visitor.Get(), text, 64))),
              "page\n");
}

// Only the opened file is written, whatever its name leads to by then.
TEST_F(ChangedPage, WhoseNameBecomesALink_LeavesTheTargetAlone) {
    const TempDir elsewhere;
    const std::string target = elsewhere.Write("target", "precious\n");
    EXPECT_EQ(Heal([&] {
                  std::filesystem::rename(site_.Path(kPage), site_.Path("moved"));
                  std::filesystem::create_symlink(target, site_.Path(kPage));
              }),
              "");
    EXPECT_EQ(TempDir::Read(target), "precious\n");
    EXPECT_EQ(TempDir::Read(site_.Path("moved")), "page\n");
}

TEST_F(ChangedPage, ThatMustNotBeWritten_IsLeftAsItIs) {
    struct Case {
        const char* why;
        std::function<void()> prepare;
    };
    const Case cases[] = {
        {"its copy is not what was approved",
         [this] { std::ofstream(site_.Copy(kPage)) << "pagf\n"; }},
        {"its copy cannot be read: No such file or directory",
         [this] { std::filesystem::remove(site_.Copy(kPage)); }},
        {"it has other names",
         [this] { std::filesystem::create_hard_link(site_.Path(kPage), site_.Path("other")); }},
        {"it is too large", [this] { most_bytes_ = 2; }},
    };
    for (auto one = std::rbegin(cases); one != std::rend(cases); ++one) {
        most_bytes_ = 4096;
        one->prepare();
        EXPECT_EQ(Heal(), one->why);
        EXPECT_EQ(Page(), kEvil) << one->why;
        std::filesystem::remove(site_.Path("other"));
        if (!std::filesystem::exists(site_.Copy(kPage)))
            std::ofstream(site_.Copy(kPage)) << "page\n";
    }
}

TEST_F(ChangedPage, OnAFullDisk_IsNotTakenForHealed) {
    site_.Write(kPage, "x");
    const test::FileSizeLimit full(1);
    EXPECT_EQ(Heal(), "it cannot be written: File too large");
    EXPECT_NE(Page(), "page\n");
}

}  // namespace
