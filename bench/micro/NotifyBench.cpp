// Measures how fast changes reach a receiver. First single changes: the time from the writer's
// write() to the receiver's handler. Then a burst of overwritten files with a receiver that needs a
// given time for each change. Uses the real framework, task and queue. Prints one line for each
// measurement.
#include <FileNotifyModule.h>
#include <fcntl.h>
#include <framework/ConfigManager.h>
#include <framework/Engine.h>
#include <framework/Module.h>
#include <framework/Task.h>
#include <kernel/InotifyDescriptor.h>
#include <module_filenotify/AbstractMessageReceiver.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <module_filenotify/FileNotifyWatchMessage.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace {

using Clock = std::chrono::steady_clock;

class Receiver : public Framework::Task, public Engine::AbstractMessageReceiver {
  public:
    Receiver() : Task("receiver", "feature", Framework::TaskCondition::kResident, 1024) {}

    int Run() override {
        if (Waiter().WaitAndHandleEvent(1000, 10) == -1) BulkConsumeMsg(128);
        return 0;
    }
    void FileNotifyMessageAction(Engine::FileNotifyMessage*) override {
        const auto now = Clock::now();
        last_ = now.time_since_epoch().count();
        ++count_;
        while (Clock::now() < now + std::chrono::microseconds(work_us_)) {
        }
    }
    bool Watch(const std::string& path) {
        _FileNotifyOpt options;
        options.recursive = options.report_directories = options.rewatch = true;
        std::string id;
        SyncSendDirectMsg("filenotify_task",
                          new Engine::FileNotifyWatchMessage(
                              this, path, {IN_CREATE, IN_MODIFY, IN_DELETE, IN_ATTRIB}, options),
                          id, 1000, 2);
        return !id.empty();
    }
    void SetWork(int microseconds) { work_us_ = microseconds; }
    unsigned Count() const { return count_; }
    Clock::time_point Last() const { return Clock::time_point(Clock::duration(last_.load())); }

  private:
    std::atomic<int> work_us_{0};
    std::atomic<unsigned> count_{0};
    std::atomic<Clock::rep> last_{0};
};

class Receivers : public Framework::Module {
  public:
    explicit Receivers(Receiver& task) : Module("receivers"), task_(task) {}
    bool Init() override {
        task_.duplicate();
        return RegisterTask(&task_, false) && Module::Init();
    }
    void UnInit() override {
        UnRegisterTask(task_.Id());
        Module::UnInit();
    }

  private:
    Receiver& task_;
};

bool Reaches(const Receiver& receiver, unsigned count) {
    return test::WaitFor([&] { return receiver.Count() >= count; }, std::chrono::seconds(30));
}

bool MeasureLone(Receiver& receiver, const std::string& page, int rounds) {
    const SDK::FileDescriptor file(::open(page.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    std::vector<double> took;
    for (int round = 0; round < rounds; ++round) {
        const unsigned before = receiver.Count();
        std::this_thread::sleep_for(std::chrono::milliseconds(7));  // the machine comes to rest
        const auto start = Clock::now();
        if (::pwrite(file.Get(), "x", 1, 0) != 1 || !Reaches(receiver, before + 1)) return false;
        took.push_back(std::chrono::duration<double, std::micro>(receiver.Last() - start).count());
    }
    std::sort(took.begin(), took.end());
    const auto at = [&](double share) {
        return took[static_cast<std::size_t>(share * static_cast<double>(took.size() - 1))];
    };
    std::printf("a lone change: median %.0f us, 90th percentile %.0f us, 99th %.0f us\n", at(0.5),
                at(0.9), at(0.99));
    return true;
}

bool MeasureBurst(Receiver& receiver, const std::vector<std::string>& pages, int work_us) {
    receiver.SetWork(work_us);
    const unsigned before = receiver.Count();
    const auto start = Clock::now();
    for (const std::string& page : pages) {
        const SDK::FileDescriptor file(::open(page.c_str(), O_WRONLY | O_CLOEXEC));
        if (::pwrite(file.Get(), "y", 1, 0) != 1) return false;
    }
    if (!Reaches(receiver, before + static_cast<unsigned>(pages.size()))) return false;
    const double seconds = std::chrono::duration<double>(receiver.Last() - start).count();
    const double count = static_cast<double>(pages.size());
    std::printf("a burst of %.0f, %d us of work each: %.0f a second, %.0f %% of the receiver's\n",
                count, work_us, count / seconds, 100 * count * work_us * 1e-6 / seconds);
    receiver.SetWork(0);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("How fast changes reach a receiver");
    int rounds = 500;
    int files = 1000;
    app.add_option("--rounds", rounds)->check(CLI::Range(10, 100000));
    app.add_option("--files", files, "of a burst")->check(CLI::Range(10, 100000));
    CLI11_PARSE(app, argc, argv);
    const test::TempDir dir;
    Framework::Engine engine;
    engine.Start();
    std::string error;
    auto* receiver = new Receiver;  // reference-counted
    if (!engine.AddModule(std::make_unique<Engine::FileNotifyModule>(nullptr), error) ||
        !engine.AddModule(std::make_unique<Receivers>(*receiver), error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    std::vector<std::string> pages;
    for (int i = 0; i < files; ++i) {
        pages.push_back(
            dir.Write("site/d" + std::to_string(i % 20) + "/" + std::to_string(i), "x"));
    }
    bool done = receiver->Watch(dir.Path("site"));
    done = done && test::WaitFor(
                       [&] {
                           Json::Value answer;
                           engine.Queries().Ask("filenotify.watches", {}, answer);
                           return answer["watches"][0]["state"] == "ready";
                       },
                       std::chrono::seconds(30));
    done = done && MeasureLone(*receiver, pages[0], rounds);
    for (const int work_us : {0, 10, 200, 400}) {
        done = done && MeasureBurst(*receiver, pages, work_us);
    }
    engine.Stop();
    receiver->release();
    return done ? 0 : 1;
}
