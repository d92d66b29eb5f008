#pragma once

#include <sdk/files/FileDescriptor.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/Room.h"
#include "who/TouchLog.h"
#include "who/Verdict.h"
#include "who/kernel/EventReader.h"
#include "who/kernel/ObjectEvents.h"
#include "who/kernel/ProcessEvents.h"
#include "who/process/ProcessTable.h"

namespace Sentry {

/// The operations "who.…": tells which process changed an object.
///
/// "watch": {"paths": [{"path", "excluded": [prefix…]}]} replaces what is watched.
/// "lookup": {"of": [{"path", "at"}]}, `at` in nanoseconds of CLOCK_MONOTONIC, as text; the answer
/// is {"who": [verdict…]} in that order (ToJson).
///
/// A thread of its own takes events as they come; a lookup first takes what waits.
class WhoRoom : public Room {
  public:
    WhoRoom() = default;
    ~WhoRoom() override;
    WhoRoom(const WhoRoom&) = delete;
    WhoRoom& operator=(const WhoRoom&) = delete;

    std::string Name() const override { return "who"; }
    void Start(const Json::Value& settings, pid_t agent, Tell tell) override;
    Json::Value Answer(const std::string& operation, const Json::Value& request) override;
    Json::Value Status() const override;
    void Stop() override;

  private:
    enum Certainty : std::size_t { kExact, kLikely, kUnknown, kCertainties };

    void Work();
    void Follow();
    void Record(const EventReader::Chunk& chunk);
    Json::Value Watch(const Json::Value& request);
    Json::Value Lookup(const Json::Value& request);
    Verdict Find(const std::string& path, Nanoseconds at, Nanoseconds now) const;

    bool is_on_ = false;
    bool with_cmdline_ = true;
    SDK::FileDescriptor stop_;  ///< readable: the thread must end
    mutable std::mutex mutex_;  ///< guards all below
    std::unique_ptr<ObjectEvents> objects_;
    ProcessTable processes_;
    std::unique_ptr<EventReader> reader_;
    std::unique_ptr<ProcessEvents> process_events_;
    TouchLog touches_;
    std::vector<WatchedPath> watched_;
    std::vector<ObjectEvents::Event> events_;
    std::array<std::uint64_t, kCertainties> answers_{};
    std::thread thread_;
};

}  // namespace Sentry
