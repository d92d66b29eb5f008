// The module among the real modules: inotify, rsync and the report store.
#include <framework/ConfigManager.h>
#include <framework/Engine.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Installation.h"
#include "support/WaitFor.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class Protection : public ::testing::Test {
  protected:
    Protection() {
        fs::create_directory_symlink(SENTREL_MODULE_DIR, install_.dir.Path("module"));
        site_.Write("index.html", "welcome");
        site_.Write("sub/page.html", "page");
        engine_.Start();
        std::string error;
        for (const char* name : {"report_module", "filenotify_module", "sentrel_module"}) {
            EXPECT_TRUE(engine_.LoadModule(name, error)) << error;
        }
        Json::Value policy = test::Installation::Policy();
        policy["content"]["dirlist"].append(
            test::Installation::Entry(site_.Path(), backup_.Path()));
        EXPECT_NE(engine_.ApplyPolicy("sentrel_feature", test::Text(policy)).result, 0);
        EXPECT_TRUE(test::WaitFor([this] { return IsReady(); }, 60s));
    }
    ~Protection() override { engine_.Stop(); }

    Json::Value Ask(const std::string& query, const Json::Value& request = Json::objectValue) {
        Json::Value answer;
        EXPECT_TRUE(engine_.Queries().Ask(query, request, answer)) << query;
        return answer;
    }
    bool IsReady() {
        const Json::Value status = Ask("status.sentrel");
        return status["protected_paths"][0]["state"] == "ready" &&
               !status["backup"]["local_pending"].asBool();
    }
    /// The alarm for that path in the store, or null; waits for it.
    Json::Value Alarm(const std::string& path) {
        Json::Value request(Json::objectValue);
        request["kind"] = "alarm";
        Json::Value found;
        const auto arrived = [&] {
            const Json::Value answer = Ask("reports.read", request);
            for (const Json::Value& report : answer["reports"]) {
                const bool names_it =
                    report["body"].asString().find("\"" + path + "\"") != std::string::npos;
                if (names_it) found = report;
            }
            return !found.isNull();
        };
        EXPECT_TRUE(test::WaitFor(arrived, 20s)) << path << test::Text(Ask("reports.read", request));
        return found;
    }
    bool Becomes(const std::string& file, const std::string& content) {
        return test::WaitFor([&] { return test::TempDir::Read(file) == content; }, 20s);
    }

    test::Installation install_;
    test::TempDir site_;
    test::TempDir backup_;
    Framework::Engine engine_;
};

TEST_F(Protection, Tampering_IsUndoneAndReported) {
    const std::string index = site_.Write("index.html", "defaced");
    EXPECT_TRUE(Becomes(index, "welcome"));
    const Json::Value alarm = Alarm(index);
    EXPECT_EQ(alarm["outcome"], "restored");
    EXPECT_GT(alarm["duration_ms"].asDouble(), 0);

    const std::string shell = site_.Write("new/deep/shell.php", "evil");
    EXPECT_TRUE(test::WaitFor([&] { return !fs::exists(site_.Path("new")); }, 20s));
    EXPECT_EQ(Alarm(site_.Path("new/"))["outcome"], "removed");

    fs::remove_all(site_.Path("sub"));
    EXPECT_TRUE(Becomes(site_.Path("sub/page.html"), "page"));
    EXPECT_EQ(Alarm(site_.Path("sub/"))["outcome"], "restored");
}

TEST_F(Protection, NameThatCannotBeRestored_IsReportedAsValidJson) {
    const std::string odd = site_.Write("a \"b\"\n\xff.html", "x");
    const Json::Value alarm = Alarm(site_.Path("a \\\"b\\\"\\n\xef\xbf\xbd.html"));
    Json::Value document;
    const std::string body = alarm["body"].asString();
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(body.data(), body.size(), document), 0);
    EXPECT_TRUE(test::WaitFor([&] { return !fs::exists(odd); }, 20s));
}

}  // namespace
