#include "who/Verdict.h"

#include <algorithm>
#include <ctime>

#include "who/process/CgroupName.h"

namespace Sentry {

namespace {

/// Both sides read their events a little later than the change.
constexpr Nanoseconds kSlack = kSecond / 50;
/// A change that waited, or was merged with later ones, has touches around the time of its event.
constexpr Nanoseconds kBefore = 5 * kSecond;

Nanoseconds Distance(const Touch& touch, Nanoseconds at) {
    if (touch.last < at) return at - touch.last;
    return touch.first > at ? touch.first - at : 0;
}

double SecondsBetween(clockid_t from, clockid_t to) {
    timespec one{};
    timespec other{};
    ::clock_gettime(from, &one);
    ::clock_gettime(to, &other);
    return static_cast<double>(other.tv_sec - one.tv_sec) +
           static_cast<double>(other.tv_nsec - one.tv_nsec) / static_cast<double>(kSecond);
}

Json::Int64 StartTime(const Process& process) {
    static constexpr double kTicks = 100;
    return static_cast<Json::Int64>(static_cast<double>(process.start) / kTicks +
                                    SecondsBetween(CLOCK_BOOTTIME, CLOCK_REALTIME));
}

void AddText(Json::Value& object, const char* name, const std::string& text) {
    if (!text.empty()) object[name] = text;
}

void AddNumber(Json::Value& object, const char* name, std::uint32_t number) {
    if (number != kUnset) object[name] = number;
}

Json::Value OtherToJson(const Touch& touch) {
    Json::Value other(Json::objectValue);
    other["pid"] = touch.pid;
    if (!touch.process) return other;
    AddText(other, "exe", touch.process->program->exe);
    AddNumber(other, "uid", touch.process->user.uid);
    return other;
}

void AddProcess(Json::Value& object, const Process& process, bool with_cmdline) {
    const CgroupName group = NameOfCgroup(process.cgroup);
    object["pid"] = process.pid;
    object["start"] = StartTime(process);
    AddText(object, "exe", process.program->exe);
    if (with_cmdline) AddText(object, "cmdline", process.program->cmdline);
    AddNumber(object, "uid", process.user.uid);
    AddNumber(object, "euid", process.user.euid);
    AddNumber(object, "login", process.login);
    AddNumber(object, "session", process.session);
    AddText(object, "unit", group.unit);
    AddText(object, "container", group.container);
    for (const Ancestor& ancestor : process.parents) {
        Json::Value parent(Json::objectValue);
        parent["pid"] = ancestor.pid;
        parent["exe"] = ancestor.program->exe;
        object["parents"].append(parent);
    }
}

}  // namespace

Verdict JudgeTouches(const std::vector<Touch>& touches, Nanoseconds at, Nanoseconds now) {
    const Nanoseconds when = at > 0 ? at : now;
    const Nanoseconds earliest = when - (at > 0 ? kBefore : TouchLog::kKept);
    const Touch* nearest = nullptr;
    for (const Touch& touch : touches) {
        if (touch.last < earliest) continue;
        if (nearest == nullptr || Distance(touch, when) <= Distance(*nearest, when)) {
            nearest = &touch;
        }
    }
    Verdict verdict;
    if (nearest == nullptr) {
        verdict.reason = "no process was seen to change it";
        return verdict;
    }
    verdict.culprit = *nearest;
    const Nanoseconds gap = Distance(*nearest, when);
    bool is_alone = true;
    for (const Touch& touch : touches) {
        if (&touch == nearest || Distance(touch, nearest->last) > kSecond) continue;
        verdict.others.push_back(touch);
        if (Distance(touch, when) <= gap + kSlack) is_alone = false;
    }
    if (!nearest->process) {
        verdict.reason = nearest->why;
        return verdict;
    }
    verdict.certainty = "likely";
    if (!nearest->is_exact) {
        verdict.reason = nearest->why;
    } else if (!is_alone) {
        verdict.reason = "several processes changed it at about the same time";
    } else if (at <= 0 || gap > kSecond) {
        verdict.reason = "the time of the change is not known";
    } else {
        verdict.certainty = "exact";
    }
    return verdict;
}

Json::Value ToJson(const Verdict& verdict, bool with_cmdline) {
    Json::Value object(Json::objectValue);
    object["certainty"] = verdict.certainty;
    AddText(object, "reason", verdict.reason);
    if (verdict.culprit.process) AddProcess(object, *verdict.culprit.process, with_cmdline);
    for (const Touch& other : verdict.others) object["others"].append(OtherToJson(other));
    return object;
}

}  // namespace Sentry
