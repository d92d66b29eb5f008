// Owns the incidents that are kept. It must not read reports (its user does).
#include "notify/Incidents.h"

#include <sdk/files/PathUtils.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <utility>

namespace Notify {

using SDK::PathUtils;
using SDK::StrUtils;

namespace {

/// The deepest directory that holds both, with a trailing "/"; the path itself when they are equal.
std::string CommonPath(const std::string& one, const std::string& other) {
    if (one == other) return one;
    const auto ends = std::mismatch(one.begin(), one.end(), other.begin(), other.end());
    const std::string same(one.begin(), ends.first);
    const std::size_t slash = same.rfind('/');
    return slash == std::string::npos ? "" : same.substr(0, slash + 1);
}

}  // namespace

void AddTo(Incident& incident, const AlarmRecord& alarm, const Json::Value& report) {
    if (incident.alarms++ == 0) {
        incident.begun_ms = alarm.time_ms;
        incident.common = alarm.path;
        incident.host = alarm.host;
        incident.agent_id = alarm.agent_id;
        incident.first = report;
    }
    if (incident.examples.size() < Incident::kExamples) incident.examples.push_back(alarm);
    incident.count += alarm.count;
    incident.actions[alarm.action] += alarm.count;
    incident.outcomes[alarm.outcome] += alarm.count;
    incident.common = CommonPath(incident.common, alarm.path);
    incident.slowest_ms = std::max(incident.slowest_ms, alarm.duration_ms);
}

Incidents::Incidents(std::vector<std::string> roots, std::size_t most, bool each)
    : roots_(std::move(roots)), most_(most), each_(each) {}

std::string TreeOf(const std::vector<std::string>& roots, const std::string& path) {
    for (const std::string& root : roots) {
        if (path == root || StrUtils::BeginsWith(path, PathUtils::WithTrailingSlash(root))) {
            return root;
        }
    }
    return PathUtils::GetDirFromPath(path);
}

bool Incidents::Add(const AlarmRecord& alarm, const Json::Value& report) {
    const std::string tree =
        alarm.agent_id.empty() ? TreeOf(roots_, alarm.path) : "host " + alarm.agent_id;
    const std::string key = each_ ? "" : tree;
    const auto known = open_.find(key);
    if (!each_ && known != open_.end() && alarm.time_ms - known->second->begun_ms < kLongestMs) {
        AddTo(*known->second, alarm, report);
        return false;
    }
    kept_.emplace_back();
    AddTo(kept_.back(), alarm, report);
    if (!each_) open_[key] = std::prev(kept_.end());
    ++total_;
    if (most_ > 0 && kept_.size() > most_) DropOldest();
    return true;
}

void Incidents::DropOldest() {
    for (auto open = open_.begin(); open != open_.end();) {
        open = open->second == kept_.begin() ? open_.erase(open) : std::next(open);
    }
    kept_.pop_front();
}

}  // namespace Notify
