#pragma once

#include <FileNotifyModule.h>
#include <Poco/AutoPtr.h>
#include <framework/ConfigManager.h>
#include <framework/Engine.h>
#include <gtest/gtest.h>
#include <kernel/InotifyDescriptor.h>
#include <sdk/files/PathUtils.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "support/RecordingReceiver.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace test {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto kDeadline = 30s;
const std::vector<unsigned int> kMasks = {
    IN_CREATE,      IN_MODIFY,   IN_DELETE, IN_ATTRIB, IN_MOVED_FROM | IN_MOVED_TO,
    IN_DELETE_SELF, IN_MOVE_SELF};

/// The real descriptor, with faults on demand.
class FaultyDescriptor : public Engine::FileNotify::InotifyDescriptor {
  public:
    struct Faults {
        std::atomic<int> watches_left{1 << 30};  ///< as the kernel counts: directories
        std::atomic<bool> stalled{false};        ///< nothing can be read
        std::atomic<bool> forget_unread{false};  ///< what waits is lost, an overflow is told
    };

    explicit FaultyDescriptor(Faults& faults) : faults_(faults) {}

    int Add(int dir_fd, std::uint32_t mask) override {
        const std::lock_guard lock(mutex_);
        const int wd = InotifyDescriptor::Add(dir_fd, mask);
        if (wd < 0 || !watches_.insert(wd).second) return wd;
        if (faults_.watches_left > 0) {
            --faults_.watches_left;
            return wd;
        }
        watches_.erase(wd);
        InotifyDescriptor::Remove(wd);
        return -ENOSPC;
    }

    void Remove(int wd) override {
        const std::lock_guard lock(mutex_);
        if (watches_.erase(wd) > 0) ++faults_.watches_left;
        InotifyDescriptor::Remove(wd);
    }

    ssize_t Read(char* buffer, std::size_t size) override {
        if (faults_.stalled) {
            errno = EAGAIN;
            return -1;
        }
        if (!faults_.forget_unread.exchange(false)) return InotifyDescriptor::Read(buffer, size);
        while (InotifyDescriptor::Read(buffer, size) > 0) {
        }
        inotify_event overflow{};
        overflow.wd = -1;
        overflow.mask = IN_Q_OVERFLOW;
        std::memcpy(buffer, &overflow, sizeof overflow);
        return sizeof overflow;
    }

  private:
    Faults& faults_;
    std::mutex mutex_;
    std::set<int> watches_;
};

/// A running engine with the file-notify module, and receivers.
class NotifyTest : public ::testing::Test {
  protected:
    class Receivers : public Framework::Module {
      public:
        Receivers() : Module("receivers") {}
        void UnInit() override {
            for (const std::string& id : ids) UnRegisterTask(id);
        }
        std::vector<std::string> ids;
    };

    void SetUp() override {
        SDK::PathUtils::SetInstallationPath(home_.Path());
        auto& config = Framework::ConfigManager::GetInstance();
        config.Reset();
        std::string error;
        ASSERT_TRUE(config.Load(home_.Write("agent.json", R"({"filenotify":{"retry_ms":20}})"),
                                true, error))
            << error;
        engine_.Start();
        ASSERT_TRUE(engine_.AddModule(
            std::make_unique<Engine::FileNotifyModule>(std::make_unique<FaultyDescriptor>(faults_)),
            error))
            << error;
        auto receivers = std::make_unique<Receivers>();
        receivers_ = receivers.get();
        ASSERT_TRUE(engine_.AddModule(std::move(receivers), error)) << error;
        receiver_ = NewReceiver("receiver");
        fs::create_directory(Root());
    }

    void TearDown() override { engine_.Stop(); }

    Poco::AutoPtr<RecordingReceiver> NewReceiver(const std::string& id,
                                                 unsigned int capacity = 1024) {
        Poco::AutoPtr<RecordingReceiver> task(new RecordingReceiver(id, capacity));
        engine_.RunOnFrameworkThread([&] {
            task->duplicate();
            receivers_->RegisterTask(task.get(), false);
        });
        receivers_->ids.push_back(id);
        return task;
    }

    std::string Root(const std::string& below = {}) const {
        return below.empty() ? site_.Path("root") : site_.Path("root/" + below);
    }

    static _FileNotifyOpt Tree() {
        _FileNotifyOpt options;
        options.recursive = options.report_directories = options.rewatch = true;
        return options;
    }

    /// Puts a watch on and waits until it is in force; its id.
    std::string Watch(const std::string& path, const std::string& state = "ready",
                      const _FileNotifyOpt& options = Tree()) {
        const std::string id = receiver_->Ask(path, kMasks, options);
        EXPECT_TRUE(Reaches(id, state)) << id << " is " << WatchStatus(id)["state"].asString();
        return id;
    }

    Json::Value WatchStatus(const std::string& id) const {
        Json::Value answer;
        Framework::Engine::Instance().Queries().Ask("filenotify.watches", {}, answer);
        for (const Json::Value& watch : answer["watches"]) {
            if (watch["id"].asString() == id) return watch;
        }
        return {};
    }
    bool Reaches(const std::string& id, const std::string& state) const {
        return WaitFor([&] { return WatchStatus(id)["state"].asString() == state; }, kDeadline);
    }
    std::uint64_t Counter(const std::string& name) const {
        Json::Value answer;
        Framework::Engine::Instance().Queries().Ask("status.filenotify", {}, answer);
        const Json::Value& counters = answer["counters"];
        return counters.isMember(name) ? counters[name].asUInt64()
                                       : answer["filenotify"][name].asUInt64();
    }

    /// Whether as many directories and files are known below the root as there are.
    bool IndexAgrees() const {
        int directories = 1;
        int files = 0;
        for (const auto& entry : fs::recursive_directory_iterator(Root())) {
            const bool is_directory = entry.symlink_status().type() == fs::file_type::directory;
            ++(is_directory ? directories : files);
        }
        const Json::Value status = WatchStatus(Root());
        return status["directories"].asInt() == directories && status["files"].asInt() == files;
    }

    static bool Has(const std::vector<SeenChange>& seen, std::uint32_t mask,
                    const std::string& path) {
        return IndexOf(seen, mask, path) < seen.size();
    }
    static std::size_t IndexOf(const std::vector<SeenChange>& seen, std::uint32_t mask,
                               const std::string& path) {
        const auto it = std::find_if(seen.begin(), seen.end(), [&](const SeenChange& change) {
            return change.path == path && change.mask == mask;
        });
        return static_cast<std::size_t>(it - seen.begin());
    }
    bool Sees(std::uint32_t mask, const std::string& path) const {
        return WaitFor([&] { return Has(receiver_->Seen(), mask, path); }, kDeadline);
    }

    void AwaitCookie() {
        const std::string cookie = Root("cookie" + std::to_string(++cookies_));
        TouchFile(cookie);
        EXPECT_TRUE(Sees(IN_CREATE, cookie));
    }

    /// Everything that has been delivered of what happened until now. When the event of a file that
    /// is made now has come, all earlier ones have been read; when that of another one comes after
    /// the time when nothing waited any more, all of them have been delivered.
    std::vector<SeenChange> SeenUntilNow() {
        AwaitCookie();
        EXPECT_TRUE(WaitFor([&] { return Counter("pending_events") == 0; }, kDeadline));
        AwaitCookie();
        std::vector<SeenChange> seen = receiver_->Seen();
        seen.erase(std::remove_if(seen.begin(), seen.end(),
                                  [](const SeenChange& change) {
                                      return change.path.find("/cookie") != std::string::npos;
                                  }),
                   seen.end());
        return seen;
    }

    static void TouchFile(const std::string& path) { std::ofstream(path, std::ios::app) << "x"; }

    TempDir home_;
    TempDir site_;
    FaultyDescriptor::Faults faults_;
    Framework::Engine engine_;
    Receivers* receivers_ = nullptr;
    Poco::AutoPtr<RecordingReceiver> receiver_;
    int cookies_ = 0;
};

/// The changes, one a line, for failure messages.
inline std::string Print(const std::vector<SeenChange>& seen) {
    std::string text;
    for (const SeenChange& change : seen) {
        char mask[16];
        std::snprintf(mask, sizeof mask, "%x ", change.mask);
        text += mask + change.path + (change.moveto.empty() ? "" : " -> " + change.moveto) + "\n";
    }
    return text;
}

}  // namespace test
