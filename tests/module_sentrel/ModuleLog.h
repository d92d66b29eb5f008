#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace test {

/// Keeps what a logger writes, down to trace, while the object lives.
class ModuleLog {
  public:
    struct Record {
        Poco::Message::Priority priority;
        std::string text;
        std::string source;
    };

    explicit ModuleLog(Poco::Logger& logger) : logger_(logger), channel_(new Keeper) { Attach(); }
    ~ModuleLog() { logger_.setChannel(nullptr); }
    ModuleLog(const ModuleLog&) = delete;
    ModuleLog& operator=(const ModuleLog&) = delete;

    /// Takes the logger again; making an application object gives all loggers another channel.
    void Attach() {
        logger_.setLevel(Poco::Message::PRIO_TRACE);
        logger_.setChannel(channel_);
    }

    std::vector<Record> Records() const {
        const std::lock_guard<std::mutex> lock(channel_->mutex);
        return channel_->records;
    }

    /// How often exactly this was written.
    long Count(Poco::Message::Priority priority, const std::string& text) const {
        const std::vector<Record> records = Records();
        return std::count_if(records.begin(), records.end(), [&](const Record& record) {
            return record.priority == priority && record.text == text;
        });
    }

    /// The source files that the records so far name, each once.
    std::set<std::string> Sources() const {
        std::set<std::string> sources;
        for (const Record& record : Records()) sources.insert(record.source);
        return sources;
    }

    /// The texts of one priority, in order.
    std::vector<std::string> Texts(Poco::Message::Priority priority) const {
        std::vector<std::string> texts;
        for (const Record& record : Records()) {
            if (record.priority == priority) texts.push_back(record.text);
        }
        return texts;
    }

    void Clear() {
        const std::lock_guard<std::mutex> lock(channel_->mutex);
        channel_->records.clear();
    }

  private:
    struct Keeper : Poco::Channel {
        void log(const Poco::Message& message) override {
            const std::lock_guard<std::mutex> lock(mutex);
            const char* source = message.getSourceFile();
            records.push_back(
                {message.getPriority(), message.getText(), source == nullptr ? "" : source});
        }
        mutable std::mutex mutex;
        std::vector<Record> records;
    };

    Poco::Logger& logger_;
    Poco::AutoPtr<Keeper> channel_;
};

}  // namespace test
