#include <framework/ConfigManager.h>
#include <sys/xattr.h>

#include <filesystem>

#include "feature_sentrel/backup/CopyComparison.h"
#include "fixtures/EventFixture.h"

namespace {

namespace fs = std::filesystem;
using test::Event;

const std::string kCapability("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
/// An ACL that names user 33 and leaves the mode of a directory, or of a file, as it is.
std::string Acl(bool is_directory) {
    std::string acl("\2\0\0\0", 4);
    const std::string nobody(4, '\xff');
    const std::string site_user("\x21\0\0\0", 4);
    const char rest = is_directory ? 5 : 4;
    for (const auto& [tag, bits, id] : {std::tuple{1, is_directory ? '\7' : '\6', nobody},
                                        {2, rest, site_user},
                                        {4, rest, nobody},
                                        {16, rest, nobody},
                                        {32, rest, nobody}}) {
        acl += {static_cast<char>(tag), '\0', bits, '\0'};
        acl += id;
    }
    return acl;
}

/// A site with an attribute of each kind, and copies that have them.
class Attribute : public Event {
  protected:
    Attribute() {
        SDK::ExecuteCmdUtils::SetProgramEnvironment(
            install_.dir.Path("bin/rsync"), {"HOME=" SENTREL_MODULE_DIR "/../conf/home/sha1-acls"});
        Set(File("index.html"), "user.kept", "1");
        Set(rule_.backup_path + File("index.html"), "user.kept", "1");
    }

    static void Set(const std::string& path, const char* name, const std::string& value) {
        ASSERT_EQ(::lsetxattr(path.c_str(), name, value.data(), value.size(), 0), 0) << name;
    }
    static bool Has(const std::string& path, const char* name) {
        return ::lgetxattr(path.c_str(), name, nullptr, 0) >= 0;
    }
    std::string LastAttributes() {
        Json::Value alarm;
        const auto seen = running_.fakes->data.Seen();
        if (seen.empty()) return "";
        SDK::JsonUtils::ParseJsonStr(seen.back().body.data(), seen.back().body.size(), alarm);
        return alarm["file_info"][0]["diff_attr"].asString();
    }
};

TEST_F(Attribute, ChangedAttribute_IsPutBackAndNamed) {
    utils_->diff_attr = true;
    Set(File("index.html"), "user.a\nb", "planted");
    Set(File("index.html"), "security.capability", kCapability);
    Set(File("index.html"), "user.kept", "2");
    Tell(File("index.html"), IN_ATTRIB);
    EXPECT_EQ(Alarms(), "attribute index.html: restored\n");
    const std::string text = LastAttributes();
    const std::string piece = " xattr(added:security.capability added:user.a?b changed:user.kept)";
    EXPECT_NE(text.find("size:7)" + piece), std::string::npos) << text;
    EXPECT_FALSE(Has(File("index.html"), "security.capability"));
    ::lremovexattr(File("index.html").c_str(), "user.kept");
    Tell(File("index.html"), IN_ATTRIB);
    EXPECT_TRUE(Has(File("index.html"), "user.kept"));
    Tell(File("index.html"), IN_ATTRIB);
    EXPECT_EQ(Counter("restores_done"), 2) << "equal objects are left alone";
    utils_->diff_attr = false;
}

TEST_F(Attribute, Acl_IsPutBackAlsoOfADirectoryAndByRsync) {
    Framework::ConfigManager& config = Framework::ConfigManager::GetInstance();
    std::string error;
    for (const char* in_process : {"true", "false"}) {
        const std::string text =
            std::string(R"({"sentrel": {"restore_in_process": )") + in_process + "}}";
        ASSERT_TRUE(config.Load(install_.dir.Write("a.json", text), true, error));
        for (const char* name : {"sub", "sub/page.html"}) {
            const bool is_directory = fs::is_directory(File(name));
            Set(File(name), "system.posix_acl_access", Acl(is_directory));
            ASSERT_TRUE(Has(File(name), "system.posix_acl_access"));
            Tell(File(name), IN_ATTRIB | (is_directory ? IN_ISDIR : 0));
            EXPECT_FALSE(Has(File(name), "system.posix_acl_access")) << name << in_process;
        }
    }
    EXPECT_EQ(Counter("restores_done"), 4);
    config.Reset();
}

TEST_F(Attribute, ChangeWithoutAnEvent_IsFoundByTheLook) {
    state_.progress.BeginCopy();
    Set(File("sub"), "system.posix_acl_default", Acl(true));
    auto now = std::chrono::steady_clock::now();
    EXPECT_TRUE(test::WaitFor(
        [&] {
            task_.HandleBacklog(now += std::chrono::seconds(60));
            return !Has(File("sub"), "system.posix_acl_default");
        },
        std::chrono::seconds(10)));
    EXPECT_EQ(Alarms(), "attribute sub/: restored\n");
}

TEST_F(Attribute, BeforeTheCopiesHaveThem_AttributesAreNotCompared) {
    EXPECT_TRUE(state_.progress.NoteComplete(rule_, state_.progress.Round()));
    Set(File("index.html"), "user.older", "than the copies");
    Tell(File("index.html"), IN_ATTRIB);
    EXPECT_TRUE(Has(File("index.html"), "user.older"));
    EXPECT_EQ(Alarms(), "");
}

TEST_F(Attribute, CopiesOfAnOlderAgent_GetThemWithTheNextBackup) {
    const std::string copy = rule_.backup_path + File("sub");
    Set(File("sub"), "system.posix_acl_default", Acl(true));
    Set(File("sub/page.html"), "system.posix_acl_access", Acl(false));
    state_.anchors.Of(rule_);
    const auto by_rsync = [&] {
        return utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, rule_.ignored_postfix,
                                    rule_.ignored_subdir, Engine::RSYNC_BACKUP);
    };
    const auto by_objects = [&] {
        std::timespec later{};
        ::clock_gettime(CLOCK_REALTIME, &later);
        ++later.tv_sec;
        Engine::ReplacedCopies none(*state_.anchors.Of(rule_).anchors, 0);
        return Engine::CopyComparison(state_.anchors, rule_, none, later, [] { return false; })
                   .Run()
                   .outcome == Engine::CopyComparison::Outcome::kCompared;
    };
    for (const std::function<bool()>& back_up : {std::function<bool()>(by_rsync), {by_objects}}) {
        EXPECT_FALSE(Has(copy, "system.posix_acl_default"));
        EXPECT_TRUE(back_up());
        EXPECT_TRUE(Has(copy, "system.posix_acl_default"));
        EXPECT_TRUE(Has(copy + "/page.html", "system.posix_acl_access"));
        ::lremovexattr(copy.c_str(), "system.posix_acl_default");
        ::lremovexattr((copy + "/page.html").c_str(), "system.posix_acl_access");
    }
}

}  // namespace
