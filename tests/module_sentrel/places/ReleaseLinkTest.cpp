#include <framework/ConfigManager.h>
#include <unistd.h>

#include <fstream>

#include "fixtures/Protection.h"

namespace {

namespace fs = std::filesystem;

/// Two releases of a site, protected through the link "current/".
class ReleaseLink : public test::Protection {
  protected:
    ReleaseLink() {
        site_.Write("releases/7/page.html", "seven");
        site_.Write("releases/8/page.html", "eight");
        fs::create_directory_symlink("releases/7", site_.Path("current"));
    }
    ~ReleaseLink() override {
        engine_.Stop();  // its tasks read the configuration
        Configure("{}");
    }
    static void Configure(const std::string& conf) {
        const test::TempDir dir;
        std::string problem;
        Framework::ConfigManager::GetInstance().Load(dir.Write("agent.json", conf), true, problem);
    }
    void Begin() {
        Json::Value policy = test::Installation::Policy();
        policy["content"]["dirlist"].append(
            test::Installation::Entry(site_.Path("current/"), backup_.Path()));
        ASSERT_NE(engine_.ApplyPolicy("sentrel_feature", test::Text(policy)).result, 0);
        AwaitCopyOf("7");
    }
    void AwaitCopyOf(const std::string& release) {
        const auto is_copied = [&] {
            const Json::Value path = Ask("status.sentrel")["protected_paths"][0];
            return path["path"] == Release(release) + "/" && IsBackedUp() &&
                   !path["last_local_backup"].isNull();
        };
        EXPECT_TRUE(test::WaitFor(is_copied, std::chrono::seconds(30)));
    }
    void Switch(const std::string& release) {
        fs::create_directory_symlink("releases/" + release, site_.Path("new"));
        fs::rename(site_.Path("new"), site_.Path("current"));
    }
    void Deface(const std::string& release) {
        std::ofstream(Release(release) + "/page.html") << "defaced";
    }
    std::string Release(const std::string& release) const {
        return site_.Path("releases/" + release);
    }
    /// The link is told and release 7 stays protected.
    void ExpectHeld(const std::string& why) {
        Begin();
        Switch("8");
        const std::string text = "the release link " + site_.Path("current") + " leads to " +
                                 Release("8") + " now and is not followed: " + why;
        EXPECT_EQ(Alarm(site_.Path("current/"))["outcome"], "not protected: " + text);
        EXPECT_EQ(Ask("status.sentrel")["protected_paths"][0]["problem"], text);
        Deface("8");
        Deface("7");
        EXPECT_TRUE(Becomes(Release("7") + "/page.html", "seven"));
        EXPECT_EQ(test::TempDir::Read(Release("8") + "/page.html"), "defaced");
    }
};

TEST_F(ReleaseLink, Switch_ProtectsTheNewTargetAsItIsAndLetsTheOldOneGo) {
    Begin();
    site_.Write("releases/8/page.html", "eight, changed before the switch");
    Switch("8");
    AwaitCopyOf("8");
    EXPECT_EQ(Alarm(site_.Path("current/"))["outcome"],
              "release link followed to " + Release("8") + "/");
    Deface("7");
    Deface("8");
    EXPECT_TRUE(Becomes(Release("8") + "/page.html", "eight, changed before the switch"));
    EXPECT_EQ(test::TempDir::Read(Release("7") + "/page.html"), "defaced");
    // A switch back takes the former release as it is by then.
    Switch("7");
    AwaitCopyOf("7");
    fs::remove(Release("7") + "/page.html");
    EXPECT_TRUE(Becomes(Release("7") + "/page.html", "defaced"));
}

TEST_F(ReleaseLink, SwitchWithTheSettingHold_IsToldOnly) {
    Configure(R"({"sentrel": {"release_link": "hold"}})");
    ExpectHeld("sentrel.release_link is \"hold\"");
}

TEST_F(ReleaseLink, LinkThatOthersCanChange_IsHeld) {
    ASSERT_EQ(::chown(site_.Path().c_str(), 33, 33), 0);
    ExpectHeld("the directory " + site_.Path() + " belongs to user 33");
}

}  // namespace
