// Owns the channel of all Poco loggers and the levels requested by name. BoundedAsyncChannel owns
// queue, thread and counts; Poco's FileChannel owns files. Thread-safe. The loggers keep the
// channel for good; only its target changes.
#include "sdk/log/LoggerUtils.h"

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/SplitterChannel.h>

#include <cerrno>
#include <iostream>
#include <map>
#include <mutex>
#include <system_error>
#include <vector>

#include "log/BoundedAsyncChannel.h"
#include "log/RecordFormatter.h"
#include "sdk/files/DirUtils.h"

namespace SDK {

namespace {

constexpr std::size_t kQueueCapacity = 8192;  // records; a full queue drops the newest
constexpr mode_t kDirectoryMode = 0750;

struct LogState {
    Poco::AutoPtr<BoundedAsyncChannel> channel{new BoundedAsyncChannel(kQueueCapacity)};
    std::mutex mutex;  // guards the following, and changes of the loggers
    std::map<std::string, int> own_levels;

    LogState() = default;
    LogState(const LogState&) = delete;
    LogState& operator=(const LogState&) = delete;
    ~LogState() { channel->Stop(); }
};

LogState& State() {
    static LogState state;
    return state;
}

/// Writes only differences: other threads read both without a lock.
void Adopt(Poco::Logger& logger, const Poco::AutoPtr<BoundedAsyncChannel>& channel, int level) {
    if (logger.getChannel().get() != channel.get()) logger.setChannel(channel);
    if (logger.getLevel() != level) logger.setLevel(level);
}

/// Poco's loggers copy channel and level of their parent when they are made; this updates existing
/// ones.
void AdoptAll(LogState& state, int level) {
    Adopt(Poco::Logger::root(), state.channel, level);
    std::vector<std::string> names;
    Poco::Logger::names(names);
    for (const std::string& name : names) {
        const auto own = state.own_levels.find(name);
        Adopt(Poco::Logger::get(name), state.channel,
              own == state.own_levels.end() ? level : own->second);
    }
}

/// The channel that formats and writes to the file and the console. Throws Poco's exceptions.
Poco::AutoPtr<Poco::Channel> OpenTarget(const LoggerUtils::Settings& settings) {
    Poco::AutoPtr<Poco::FileChannel> file(
        new Poco::FileChannel(settings.directory + "/" + settings.file_name));
    file->setProperty(Poco::FileChannel::PROP_ROTATION, std::to_string(settings.rotate_bytes));
    file->setProperty(Poco::FileChannel::PROP_ARCHIVE, "number");
    file->setProperty(Poco::FileChannel::PROP_PURGECOUNT, std::to_string(settings.keep_files));
    file->open();
    Poco::AutoPtr<Poco::SplitterChannel> all(new Poco::SplitterChannel);
    all->addChannel(file);
    if (settings.console) {
        all->addChannel(Poco::AutoPtr<Poco::Channel>(new Poco::ConsoleChannel(std::cerr)));
    }
    Poco::AutoPtr<Poco::Formatter> formatter(new RecordFormatter);
    return new Poco::FormattingChannel(formatter, all);
}

}  // namespace

LoggerUtils* LoggerUtils::GetInstance() {
    static LoggerUtils instance;
    return &instance;
}

bool LoggerUtils::Configure(const Settings& settings, std::string& error) {
    if (DirUtils::MakeDirs(settings.directory, kDirectoryMode) != 0) {
        error = "cannot make the log directory " + settings.directory + ": " +
                std::generic_category().message(errno);
        return false;
    }
    try {
        const int level = Poco::Logger::parseLevel(settings.level);
        Poco::AutoPtr<Poco::Channel> target = OpenTarget(settings);
        LogState& state = State();
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.channel->Start(target);
        AdoptAll(state, level);
    } catch (const Poco::Exception& exception) {
        error = "cannot log to " + settings.directory + ": " + exception.displayText();
        return false;
    }
    error.clear();
    return true;
}

void LoggerUtils::Shutdown() {
    State().channel->Stop();
}

unsigned long LoggerUtils::DroppedRecords() const {
    return State().channel->Dropped();
}

Poco::Logger* LoggerUtils::GetRootLogger() {
    Poco::Logger& root = Poco::Logger::root();
    LogState& state = State();
    const std::lock_guard<std::mutex> lock(state.mutex);
    Adopt(root, state.channel, root.getLevel());
    return &root;
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, int level) {
    Poco::Logger* root = GetRootLogger();
    LogState& state = State();
    const std::lock_guard<std::mutex> lock(state.mutex);
    Poco::Logger& logger = Poco::Logger::get(name);
    if (level == 0) {
        state.own_levels.erase(name);
    } else {
        state.own_levels[name] = level;
    }
    Adopt(logger, state.channel, level == 0 ? root->getLevel() : level);
    return &logger;
}

}  // namespace SDK
