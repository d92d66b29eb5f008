// Measures the cost of one event in the protection module: from the task's queue through the
// comparison to the report store. The benchmark makes the events itself and writes only to a
// temporary directory.
#include <framework/Engine.h>
#include <framework/Module.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/LoggerUtils.h>
#include <sys/inotify.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "feature_sentrel/SentrelInotifyTask.h"
#include "state/ModuleState.h"
#include "support/TempDir.h"
#include "utils/SentrelUtils.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Registers the task, as the protection module does.
class BenchModule : public Framework::Module {
  public:
    explicit BenchModule(Engine::SentrelInotifyTask& task) : Module("bench_module"), task_(task) {}
    bool Init() override {
        task_.duplicate();
        return RegisterTask(&task_, false) && Module::Init();
    }
    void UnInit() override {
        UnRegisterTask(task_.Id());
        Module::UnInit();
    }

  private:
    Engine::SentrelInotifyTask& task_;
};

double ProcessorSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Waits while the queue is full, as a sender does, so that the task gets the processor.
void Rest() {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
}

/// A protected tree with its backup copy, the task that protects it, and the real report module.
class Bench {
  public:
    Bench() {
        SDK::PathUtils::SetInstallationPath(dir_.Path());
        std::filesystem::create_directory_symlink(SENTREL_MODULE_DIR, dir_.Path("module"));
        SDK::LoggerUtils::Settings settings;
        settings.directory = dir_.Path("log");
        std::string error;
        engine_.Start();
        SDK::LoggerUtils::GetInstance()->Configure(settings, error);
        if (!engine_.LoadModule("report_module", error)) std::printf("%s\n", error.c_str());
        Engine::SentrelUtils::GetInstance()->Init();
        rule_.auto_restore = true;
        rule_.filepath = rule_.real_path = dir_.Path("site/");
        rule_.backup_path = dir_.Path("backup");
        rule_.ignored_subdir = {"uploads", "cache"};
        rule_.ignored_postfix = {".log", ".tmp"};
        std::filesystem::create_directories(rule_.real_path + "a/b");
        state_.progress.NoteComplete(rule_, state_.progress.Round());
        task_.watch_rules[dir_.Path("site")] = rule_;
    }
    ~Bench() {
        engine_.Stop();
        SDK::LoggerUtils::GetInstance()->Shutdown();
    }
    /// Registers the task: it then runs on its own thread, and messages go through its queue.
    void StartTask() {
        std::string error;
        engine_.AddModule(std::make_unique<BenchModule>(task_), error);
    }

    std::unique_ptr<Engine::FileNotifyMessage> Message(const std::string& path,
                                                       std::uint32_t mask) const {
        return std::make_unique<Engine::FileNotifyMessage>(dir_.Path("site"), path, "", mask,
                                                           Clock::now());
    }
    std::string File(const std::string& name) const { return rule_.real_path + name; }
    std::string Add(const std::string& name, bool with_copy) const {
        if (with_copy) {
            dir_.Write("backup" + File(name), "content");
            dir_.Write("site/" + name, "content");
            std::filesystem::last_write_time(
                File(name), std::filesystem::last_write_time(dir_.Path("backup" + File(name))));
        } else {
            dir_.Write("site/" + name, "content");
        }
        return File(name);
    }
    void Judge(Engine::FileNotifyMessage& message) { task_.FileNotifyMessageAction(&message); }
    void Post(const std::string& path, std::uint32_t mask) {
        std::unique_ptr<Engine::FileNotifyMessage> message = Message(path, mask);
        while (!engine_.PostMessage(task_.Id(), message.get())) Rest();
        static_cast<void>(message.release());  // the framework's from here on
    }
    void AwaitEmptyQueue() const {
        while (task_.QueueLength() > 0) Rest();
    }
    unsigned Removals() const {
        const Json::Value status = state_.status.ToJson(Json::Value(), {});
        return status["counters"]["removals_done"].asUInt();
    }

  private:
    test::TempDir dir_;
    Framework::Engine engine_;
    Engine::ModuleState state_;
    Engine::SentrelInotifyTask task_{state_};
    Engine::SentrelDirRule rule_;
};

/// Runs `work` for `count` events. Prints the elapsed time and the processor time per event.
template <typename Work>
void Measure(const char* what, unsigned count, Work work) {
    const double processor = ProcessorSeconds();
    const auto begin = Clock::now();
    work();
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::printf("%-28s %8u events  %9.2f us each  %9.2f us processor\n", what, count,
                1e6 * seconds / count, 1e6 * (ProcessorSeconds() - processor) / count);
}

void MeasureJudging(Bench& bench, unsigned count) {
    const auto ignored = bench.Message(bench.File("uploads/a/b/snapshot.png"), IN_MODIFY);
    Measure("ignored, judged", count, [&] {
        for (unsigned i = 0; i < count; ++i) bench.Judge(*ignored);
    });
    const auto same = bench.Message(bench.Add("a/b/index.html", true), IN_MODIFY);
    Measure("unchanged, judged", count / 10, [&] {
        for (unsigned i = 0; i < count / 10; ++i) bench.Judge(*same);
    });
}

void MeasureQueue(Bench& bench, unsigned count) {
    const std::string ignored = bench.File("uploads/a/b/snapshot.png");
    Measure("ignored, queued", count, [&] {
        for (unsigned i = 0; i < count; ++i) bench.Post(ignored, IN_MODIFY);
        bench.AwaitEmptyQueue();
    });
}

void MeasureAdded(Bench& bench, unsigned count) {
    std::vector<std::string> files;
    for (unsigned i = 0; i < count; ++i) {
        files.push_back(bench.Add("a/b/shell" + std::to_string(i) + ".php", false));
    }
    const unsigned before = bench.Removals();
    Measure("added, removed, reported", count, [&] {
        for (const std::string& file : files) {
            bench.Post(file, IN_CREATE);
            bench.Post(file, IN_MODIFY);
        }
        for (const std::string& file : files) bench.Post(file, IN_DELETE);
        bench.AwaitEmptyQueue();
    });
    if (bench.Removals() - before != count) std::printf("not all were removed\n");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("What one event costs the protection");
    unsigned ignored = 200000;
    unsigned added = 10000;
    app.add_option("--ignored", ignored, "events of an ignored path")->capture_default_str();
    app.add_option("--added", added, "files that are added")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    Bench bench;
    MeasureJudging(bench, ignored);
    bench.StartTask();
    MeasureQueue(bench, ignored);
    MeasureAdded(bench, added);
    return 0;
}
