// Owns the alarms read so far and the position in the report store. Must not judge them
// (AttackRun does). Runs on one thread.
#include "agent/AlarmFeed.h"

#include <algorithm>

#include "sdk/text/JsonUtils.h"

namespace Demo {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kAnswerTimeout{20000};
constexpr milliseconds kLongestPoll{1000};

}  // namespace

bool AlarmFeed::Start(std::string& error) {
    Json::Value answer;
    if (!client_.Get("/v1/reports?kind=alarm&limit=1", kAnswerTimeout, answer, error)) return false;
    last_seq_ = answer["last_seq"].asInt64();
    return true;
}

std::optional<Alarm> AlarmFeed::WaitFor(const std::function<bool(const std::string&)>& matches,
                                        milliseconds deadline) {
    const auto end = Clock::now() + deadline;
    std::string error;
    std::size_t next = seen_;
    while (true) {
        for (; next < alarms_.size(); ++next) {
            if (matches(alarms_[next].path)) return alarms_[next];
        }
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
        if (left.count() <= 0 || !Fetch(std::min(left, kLongestPoll), error)) return std::nullopt;
    }
}

bool AlarmFeed::Fetch(milliseconds wait, std::string& error) {
    Json::Value answer;
    const std::string target =
        "/v1/reports?kind=alarm&limit=1000&after=" + std::to_string(last_seq_) +
        "&wait_ms=" + std::to_string(wait.count());
    if (!client_.Get(target, wait + kAnswerTimeout, answer, error)) return false;
    for (const Json::Value& report : answer["reports"]) Keep(report);
    return true;
}

void AlarmFeed::Keep(const Json::Value& report) {
    Alarm alarm;
    alarm.seq = report["seq"].asInt64();
    last_seq_ = std::max(last_seq_, alarm.seq);
    alarm.outcome = SDK::JsonUtils::GetStringValue(report, "outcome", "");
    if (report["duration_ms"].isNumeric()) alarm.duration_ms = report["duration_ms"].asDouble();
    const std::string text = SDK::JsonUtils::GetStringValue(report, "body", "");
    Json::Value body;
    Json::Value files;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), body) != 0 ||
        !SDK::JsonUtils::GetArrayValue(body, "file_info", files) || files.empty()) {
        return;
    }
    alarm.path = SDK::JsonUtils::GetStringValue(files[0], "file_path", "");
    alarm.action = SDK::JsonUtils::GetStringValue(files[0], "action", "");
    if (alarm.path.size() > 1 && alarm.path.back() == '/') alarm.path.pop_back();
    alarms_.push_back(std::move(alarm));
}

}  // namespace Demo
