#include "service/HostTable.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace Collector {

bool HostTable::Load() {
    std::vector<HostRecord> hosts;
    changed_.clear();
    is_fresh_ = store_.ReadHosts(hosts);
    if (!is_fresh_) return false;
    hosts_.clear();
    for (HostRecord& host : hosts) hosts_[host.agent_id] = std::move(host);
    return true;
}

HostRecord* HostTable::Change(const std::string& agent_id, std::int64_t now_ms) {
    auto found = hosts_.find(agent_id);
    if (found == hosts_.end()) {
        HostRecord host;
        host.agent_id = agent_id;
        host.first_seen_ms = now_ms;
        if (hosts_.size() >= max_hosts_ || !store_.AddHost(host)) return nullptr;
        found = hosts_.emplace(agent_id, host).first;
    }
    changed_.insert(agent_id);
    return &found->second;
}

HostRecord* HostTable::Find(std::int64_t host_id) {
    const auto found = std::find_if(hosts_.begin(), hosts_.end(),
                                    [=](const auto& host) { return host.second.id == host_id; });
    if (found == hosts_.end()) return nullptr;
    changed_.insert(found->first);
    return &found->second;
}

bool HostTable::Write() {
    const bool good = std::all_of(changed_.begin(), changed_.end(), [this](const std::string& id) {
        HostRecord& host = hosts_.at(id);
        if (!store_.SaveHost(host)) return false;
        ++host.revision;
        return true;
    });
    changed_.clear();
    return good;
}

}  // namespace Collector
