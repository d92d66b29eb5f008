#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "store/FleetStore.h"

namespace Collector {

/// The hosts in memory, as the database has them after the last commit plus what the present
/// transaction changes. Not thread-safe.
class HostTable {
  public:
    /// Borrows the store. At most `max_hosts` are taken.
    HostTable(FleetStore& store, std::size_t max_hosts) : store_(store), max_hosts_(max_hosts) {}

    /// Reads all hosts, and forgets what was not written. After a failure All holds what is not
    /// stored.
    bool Load();

    /// Reads all hosts when the last Load failed.
    bool IsFresh() { return is_fresh_ || Load(); }

    /// The host, added when it is new; null when there are too many or the store fails. Marks it as
    /// changed.
    HostRecord* Change(const std::string& agent_id, std::int64_t now_ms);

    /// Null for an unknown host. Marks it as changed.
    HostRecord* Find(std::int64_t host_id);

    /// Writes the changed ones.
    bool Write();

    const std::map<std::string, HostRecord>& All() const { return hosts_; }

  private:
    FleetStore& store_;
    const std::size_t max_hosts_;
    std::map<std::string, HostRecord> hosts_;
    std::set<std::string> changed_;
    bool is_fresh_ = false;
};

}  // namespace Collector
