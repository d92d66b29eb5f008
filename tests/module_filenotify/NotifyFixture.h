#pragma once

#include <FileNotifyModule.h>
#include <Poco/AutoPtr.h>
#include <fcntl.h>
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
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_set>
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

/// The real descriptor with faults on demand.
class FaultyDescriptor : public Engine::FileNotify::InotifyDescriptor {
  public:
    struct Faults {
        std::atomic<int> watches_left{1 << 30};  ///< per directory, as the kernel counts
        std::atomic<bool> stalled{false};        ///< reads find no events
        std::atomic<bool> forget_unread{false};  ///< drop queued events, report an overflow
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

    static _FileNotifyOpt Removal() {
        _FileNotifyOpt options;
        options.remove = true;
        return options;
    }

    /// Adds a watch and waits until it is applied; returns its id.
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

    bool CounterIs(const std::string& name, std::uint64_t value) const {
        return WaitFor([&] { return Counter(name) == value; }, kDeadline);
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
    using Receiver = Poco::AutoPtr<RecordingReceiver>;
    static bool Sees(std::uint32_t mask, const std::string& path, const Receiver& receiver) {
        return WaitFor([&] { return Has(receiver->Seen(), mask, path); }, kDeadline);
    }
    bool Sees(std::uint32_t mask, const std::string& path) const {
        return Sees(mask, path, receiver_);
    }
    /// Changes the file and waits for its announcement.
    bool SeesTouch(std::uint32_t mask, const std::string& path) const {
        TouchFile(path);
        return Sees(mask, path);
    }

    void AwaitCookie() {
        const std::string cookie = Root("cookie" + std::to_string(++cookies_));
        TouchFile(cookie);
        EXPECT_TRUE(Sees(IN_CREATE, cookie));
    }

    /// Everything delivered of what happened until now. The first cookie file's event proves that
    /// all earlier events were read; the second one's that all changes pending then were delivered.
    std::vector<SeenChange> SeenUntilNow() {
        AwaitCookie();
        EXPECT_TRUE(CounterIs("pending_events", 0));
        AwaitCookie();
        std::vector<SeenChange> seen = receiver_->Seen();
        seen.erase(std::remove_if(seen.begin(), seen.end(),
                                  [](const SeenChange& change) {
                                      return change.path.find("/cookie") != std::string::npos;
                                  }),
                   seen.end());
        return seen;
    }

    /// The paths that the receiver got announced with all bits of `mask`.
    static std::unordered_set<std::string> Announced(std::uint32_t mask, const Receiver& receiver) {
        std::unordered_set<std::string> paths;
        for (const SeenChange& change : receiver->Seen()) {
            if ((change.mask & mask) == mask) paths.insert(change.path);
        }
        return paths;
    }

    /// The index equals the tree, and a new file in any directory is announced.
    void ExpectIndexedAndWatched() {
        SeenUntilNow();
        EXPECT_TRUE(WaitFor([&] { return Counter("walk_queue") == 0 && IndexAgrees(); }, kDeadline))
            << WatchStatus(Root()).toStyledString();
        std::vector<std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(Root())) {
            if (entry.symlink_status().type() != fs::file_type::directory) continue;
            files.push_back(entry.path().string() + "/last");
        }
        for (const std::string& file : files) TouchFile(file);
        SeenUntilNow();
        const auto announced = Announced(IN_CREATE, receiver_);
        for (const std::string& file : files) EXPECT_EQ(announced.count(file), 1U) << file;
    }

    static void TouchFile(const std::string& path) { std::ofstream(path, std::ios::app) << "x"; }

    static bool Exchange(const std::string& one, const std::string& other) {
        return ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
    }
    /// Creates files, and directories whose names end in "/", below the root.
    void Make(std::initializer_list<const char*> names) const {
        for (const std::string name : names) {
            fs::create_directories(fs::path(Root(name)).parent_path());
            if (name.back() != '/') TouchFile(Root(name));
        }
    }

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
