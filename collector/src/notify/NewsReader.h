#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <string>

#include "store/FleetStore.h"

namespace Collector {

/// Answers what Notify::ChannelWorker asks of a report store: the alarms of all hosts, or what
/// happens to hosts, in the order in which the collector stored them. Not thread-safe.
class NewsReader {
  public:
    /// Borrows the store.
    NewsReader(FleetStore& store, bool is_of_hosts) : store_(store), is_of_hosts_(is_of_hosts) {}

    bool Read(const Json::Value& request, Json::Value& answer);

  private:
    bool ReadPage(std::int64_t after, std::int64_t limit, Json::Value& answer);
    bool Take(const Json::Value& row, Json::Value& reports);
    bool FindName(const std::string& agent_id);
    bool Last(std::int64_t& id);

    FleetStore& store_;
    const bool is_of_hosts_;
    std::map<std::string, std::string> names_;  ///< of the hosts of one page
};

}  // namespace Collector
