// Owns the counts of merged alarms until they are told. It must not decide what is merged
// (AlarmReporter does). Inotify task's thread.
#include "feature_sentrel/alarms/MergedAlarms.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "feature_sentrel/attribution/MergedWho.h"

namespace Engine {

std::string MergedAlarms::KeyOf(const Alarm& alarm) {
    return std::to_string(alarm.type) + alarm.note.outcome + '\0' + alarm.file;
}

void MergedAlarms::Add(const Alarm& alarm, bool is_new_type, Clock::time_point now) {
    std::string key = KeyOf(alarm);
    const auto [known, is_first] = alarms_.try_emplace(key, alarm);
    if (!is_first) Count(known->second, alarm);
    if (is_new_type) {
        soon_.push_back({now + kNewTypeWait, std::move(key)});
    } else if (is_first) {
        later_.push_back({now + kRepeatWait, std::move(key)});
    }
}

/// The first difference is shown, and what was kept of each change is named.
void MergedAlarms::Count(Alarm& known, const Alarm& alarm) {
    known.count += alarm.count;
    if (known.diff.empty()) known.diff = alarm.diff;
    if (known.diff_attr.empty()) known.diff_attr = alarm.diff_attr;
    known.note.duration_ms = std::max(known.note.duration_ms, alarm.note.duration_ms);
    MergeWho(known.note.who, alarm.note.who);
    std::string& ids = known.note.evidence;
    const std::string& id = alarm.note.evidence;
    const auto count = static_cast<std::size_t>(std::count(ids.begin(), ids.end(), ' ')) + 1;
    if (id.empty() || ids.find(id) != std::string::npos || count >= kMostEvidence) return;
    ids += (ids.empty() ? "" : " ") + id;
}

std::vector<Alarm> MergedAlarms::Take(Clock::time_point now, std::size_t most) {
    std::vector<Alarm> taken;
    for (std::deque<Due>* order : {&soon_, &later_}) {
        const auto is_due = [&] { return order->front().when <= now && taken.size() < most; };
        while (!order->empty() && (is_due() || alarms_.size() > kMostCounted)) {
            TakeOne(*order, taken);
        }
    }
    return taken;
}

std::vector<Alarm> MergedAlarms::TakeAll() {
    return Take(Clock::time_point::max(), std::numeric_limits<std::size_t>::max());
}

void MergedAlarms::TakeOne(std::deque<Due>& order, std::vector<Alarm>& taken) {
    const auto found = alarms_.find(order.front().key);
    if (found != alarms_.end()) {
        taken.push_back(std::move(found->second));
        alarms_.erase(found);
    }
    order.pop_front();
}

}  // namespace Engine
