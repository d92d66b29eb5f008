#pragma once

#include <gtest/gtest.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "FakeTasks.h"
#include "Installation.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "places/RuleAnchors.h"
#include "progress/BackupProgress.h"
#include "status/SentrelStatus.h"
#include "support/WaitFor.h"
#include "utils/SentrelUtils.h"

namespace test {

namespace fs = std::filesystem;

/// Runs on the thread of the task that it is sent to.
class TaskAction : public Framework::Message {
  public:
    explicit TaskAction(std::function<void()> action) : action_(std::move(action)) {}
    void Deliver(Framework::Task&) override { action_(); }

  private:
    const std::function<void()> action_;
};

/// A protected site with its backup copy made, real rsync, and events told by hand.
class Event : public ::testing::Test {
  protected:
    Event() {
        Engine::RuleAnchors::Instance().Forget();
        Engine::SentrelStatus::Instance().Reset();
        install_.UseRealRsync();
        data_.Write("site/index.html", "welcome");
        data_.Write("site/sub/page.html", "page");
        data_.Write("site/uploads/user.png", "png");
        data_.Write("site/app.log", "log");
        rule_.auto_restore = true;
        rule_.filepath = rule_.real_path = data_.Path("site/");
        rule_.backup_path = data_.Path("backup");
        rule_.ignored_subdir = {"uploads"};
        rule_.ignored_postfix = {".log"};
        Apply();
        EXPECT_TRUE(utils_->DoRsyncLocal(rule_.real_path, rule_.backup_path, rule_.ignored_postfix,
                                         rule_.ignored_subdir, Engine::RSYNC_BACKUP));
        NoteBackup();
    }

    void Apply() {
        std::string id = rule_.real_path;
        if (id.back() == '/') id.pop_back();
        task_.watch_rules[id] = rule_;
        watch_ = id;
    }
    void NoteBackup() const {
        Engine::BackupProgress& progress = Engine::BackupProgress::Instance();
        EXPECT_TRUE(progress.NoteComplete(rule_, progress.Round()));
    }

    void Tell(const std::string& path, std::uint32_t mask, const std::string& target = "") {
        install_.log.Clear();
        Engine::FileNotifyMessage msg(watch_, path, target, mask, std::chrono::steady_clock::now());
        task_.FileNotifyMessageAction(&msg);
    }

    /// Action, path below the site, and outcome of the alarms since the last call, one a line.
    std::string Alarms() {
        std::string lines;
        const auto seen = running_.fakes->data.Seen();
        for (; told_ < seen.size(); ++told_) {
            Json::Value alarm;
            SDK::JsonUtils::ParseJsonStr(seen[told_].body.data(), seen[told_].body.size(), alarm);
            const Json::Value& info = alarm["file_info"][0];
            lines += info["action"].asString() + " " +
                     info["file_path"].asString().substr(rule_.real_path.size()) + ": " +
                     seen[told_].note.outcome + "\n";
            EXPECT_GE(seen[told_].note.duration_ms, 0);
        }
        return lines;
    }
    /// Runs the task, which finds all at once what `attack` posts.
    void TellAtOnce(const std::function<void()>& attack) {
        task_.duplicate();
        running_.fakes->RegisterTask(&task_, false);
        EXPECT_TRUE(Framework::Task::SendAgileMsg(&task_, new TaskAction(attack)));
    }
    void Post(const std::string& name, std::uint32_t mask) {
        const auto now = std::chrono::steady_clock::now();
        EXPECT_TRUE(
            task_.EnqueueMsg(new Engine::FileNotifyMessage(watch_, File(name), "", mask, now)));
    }
    /// Waits for so many, and for the end of the pass that told of them.
    std::string AlarmsOnce(std::size_t count) {
        EXPECT_TRUE(WaitFor(
            [&] { return running_.fakes->data.Seen().size() >= count && task_.QueueLength() == 0; },
            std::chrono::seconds(10)));
        running_.fakes->UnRegisterTask(task_.Id());
        return Alarms();
    }
    /// Makes the backup copy look like one of the present round; file stamps are some ms apart.
    void StampCopyAnew(const std::string& name) {
        const std::string copy = rule_.backup_path + File(name);
        Engine::BackupProgress::Instance().BeginCopy();
        const auto is_new = [&] {
            struct stat info {};
            return ::chmod(copy.c_str(), 0644) == 0 && ::lstat(copy.c_str(), &info) == 0 &&
                   Engine::BackupProgress::Instance().IsOfThisRound(info);
        };
        EXPECT_TRUE(WaitFor(is_new, std::chrono::seconds(5)));
    }
    /// Puts a link to a directory of somebody else's in the place of `name`.
    void PlantLink(const std::string& name) {
        data_.Write("elsewhere/page.html", "secret");
        data_.Write("elsewhere/passwd", "secret");
        const std::string place = name.empty() ? data_.Path("site") : File(name);
        fs::rename(place, data_.Path("moved" + std::to_string(++planted_)));
        fs::create_directory_symlink(data_.Path("elsewhere"), place);
    }
    void ExpectElsewhereUntouched() const {
        EXPECT_EQ(TempDir::Read(data_.Path("elsewhere/page.html")), "secret");
        EXPECT_EQ(TempDir::Read(data_.Path("elsewhere/passwd")), "secret");
        const auto entries = fs::directory_iterator(data_.Path("elsewhere"));
        EXPECT_EQ(std::distance(fs::begin(entries), fs::end(entries)), 2);
    }
    static int Counter(const std::string& name) {
        return Engine::SentrelStatus::Instance()
            .ToJson(Json::Value(), {})["counters"][name]
            .asInt();
    }
    std::string Content(const std::string& name) const {
        return TempDir::Read(data_.Path("site/" + name));
    }
    std::string File(const std::string& name) const { return data_.Path("site/" + name); }

    Installation install_;
    RunningEngine running_{install_.log};
    Engine::SentrelUtils* utils_ = Engine::SentrelUtils::GetInstance();
    Engine::SentrelInotifyTask task_{4};
    TempDir data_;
    Engine::SentrelDirRule rule_;
    std::string watch_;
    std::size_t told_ = 0;
    int planted_ = 0;
};

}  // namespace test
