#pragma once

#include <database/Session.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Collector {

/// A signed document on its way to hosts, wave by wave.
struct Rollout {
    std::int64_t id = 0;
    std::int64_t time_ms = 0;
    std::string author;  ///< the user who published it
    std::string kind;    ///< "policy" or "act"
    std::string name;    ///< feature or act
    std::int64_t number = 0;
    std::string sha256;
    std::string document;
    std::int64_t expires_ms = 0;     ///< of an act; 0: never
    std::int64_t wave = 1;           ///< the present one
    std::int64_t wave_begun_ms = 0;  ///< 0: not yet
    std::string state = "running";   ///< then "done" or "stopped"
    std::string reason;              ///< why it is stopped, or what is missing; a sentence
};

/// How far a rollout is at one host.
struct RolloutHost {
    std::int64_t host_id = 0;
    std::string agent_id;
    std::int64_t wave = 1;
    std::int64_t sent_ms = 0;  ///< 0: not yet
    std::string
        answer;  ///< the host's last one to that feature or act, JSON; may be to another document
};

/// The rollouts in the collector's database, whose tables FleetStore makes. Operations return false
/// on failure; Error says why. Not thread-safe.
class RolloutStore {
  public:
    bool Open(const Database::Location& location);

    /// Adds it with its hosts; sets its id.
    bool Add(Rollout& rollout, const std::vector<RolloutHost>& hosts);

    bool Running(std::vector<Rollout>& rollouts);
    bool Newest(std::int64_t limit, std::vector<Rollout>& rollouts);
    std::optional<Rollout> Find(std::int64_t id);

    bool Hosts(const Rollout& rollout, std::vector<RolloutHost>& hosts);

    /// Writes wave, state and reason. False also when the stored one is no longer in the wave and
    /// state that `before` has: another process or user was first.
    bool Change(const Rollout& before, const Rollout& after);

    /// False also when it is marked already.
    bool MarkSent(std::int64_t id, std::int64_t host_id, std::int64_t now_ms);

    /// Alarms that arrived from the hosts of these waves within the time.
    bool CountAlarms(const Rollout& rollout, std::int64_t from_ms, std::int64_t to_ms,
                     std::int64_t& count);

    std::string Error() const { return session_ == nullptr ? error_ : session_->Error(); }

  private:
    bool Read(const std::string& condition, const Database::Values& values,
              std::vector<Rollout>& rollouts);

    std::unique_ptr<Database::Session> session_;
    std::string error_;  ///< of opening
};

}  // namespace Collector
