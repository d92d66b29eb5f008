#pragma once

#include <framework/Engine.h>

#include <filesystem>

#include "Installation.h"
#include "support/WaitFor.h"

namespace test {

/// The module among the real modules: inotify, rsync and the report store.
class Protection : public ::testing::Test {
  protected:
    Protection() {
        std::filesystem::create_directory_symlink(SENTREL_MODULE_DIR, install_.dir.Path("module"));
        site_.Write("index.html", "welcome");
        site_.Write("sub/page.html", "page");
        engine_.Start();
        std::string error;
        for (const char* name : {"report_module", "filenotify_module", "sentrel_module"}) {
            EXPECT_TRUE(engine_.LoadModule(name, error)) << error;
        }
    }
    ~Protection() override { engine_.Stop(); }

    void Protect(const std::string& rsync = Installation::RealRsync()) {
        Protect(Installation::Policy(rsync));
    }
    void Protect(Json::Value policy) {
        policy["content"]["dirlist"].append(Installation::Entry(site_.Path(), backup_.Path()));
        EXPECT_NE(engine_.ApplyPolicy("sentrel_feature", Text(policy)).result, 0);
        EXPECT_TRUE(WaitFor([this] { return IsWatched(); }, std::chrono::seconds(60)));
    }
    void AwaitBackup() {
        EXPECT_TRUE(WaitFor([this] { return IsBackedUp(); }, std::chrono::seconds(60)));
    }

    Json::Value Ask(const std::string& query, const Json::Value& request = Json::objectValue) {
        Json::Value answer;
        EXPECT_TRUE(engine_.Queries().Ask(query, request, answer)) << query;
        return answer;
    }
    bool IsWatched() { return Ask("status.sentrel")["protected_paths"][0]["state"] == "ready"; }
    bool IsBackedUp() { return !Ask("status.sentrel")["backup"]["local_pending"].asBool(); }
    /// The alarm for that path in the store, or null; waits for it.
    Json::Value Alarm(const std::string& path) {
        const auto arrived = [&] { return !FindAlarm(path).isNull(); };
        EXPECT_TRUE(WaitFor(arrived, std::chrono::seconds(20))) << path << Text(Alarms());
        return FindAlarm(path);
    }
    /// The newest alarm so far for that path, or null.
    Json::Value FindAlarm(const std::string& path) {
        Json::Value found;
        for (const Json::Value& report : Alarms()) {
            const bool names_it =
                report["body"].asString().find("\"" + path + "\"") != std::string::npos;
            if (names_it) found = report;
        }
        return found;
    }
    Json::Value Alarms() {
        Json::Value request(Json::objectValue);
        request["kind"] = "alarm";
        return Ask("reports.read", request)["reports"];
    }
    bool Becomes(const std::string& file, const std::string& content) {
        return WaitFor([&] { return TempDir::Read(file) == content; }, std::chrono::seconds(20));
    }

    Installation install_;
    TempDir site_;
    TempDir backup_;
    Framework::Engine engine_;
};

}  // namespace test
