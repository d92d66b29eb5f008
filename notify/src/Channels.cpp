// Owns what a channel has collected. Senders send; the agent says when.
#include <sdk/net/HttpExchange.h>

#include <chrono>
#include <utility>

#include "notify/Channel.h"
#include "notify/Formats.h"
#include "notify/Senders.h"

namespace Notify {

namespace {

constexpr std::size_t kMostIncidents = 50;  ///< in one message
constexpr long long kMsPerSecond = 1000;
constexpr long long kSecondsPerMinute = 60;
constexpr std::size_t kMostRecords = 256;  ///< in one delivery

long long NowMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

class MessageChannel : public Channel {
  public:
    MessageChannel(std::unique_ptr<MessageSender> sender, Origin origin, RootsOf roots)
        : sender_(std::move(sender)), origin_(std::move(origin)), roots_(std::move(roots)) {}

    void Add(const Json::Value& report) override {
        const AlarmRecord alarm = ReadAlarm(report);
        if (!alarm.is_alarm) return;
        if (!incidents_) {
            incidents_ = std::make_unique<Incidents>(roots_(), kMostIncidents, false);
        }
        changes_ += alarm.count;
        incidents_->Add(alarm, Json::Value());
    }

    std::string Deliver(const Delivery& delivery) override {
        if (!incidents_) return "";
        Message message;
        message.kind = delivery.is_digest ? Message::Kind::kDigest : Message::Kind::kIncident;
        message.id = origin_.agent_id + "-" + std::to_string(delivery.first_seq) + "-" +
                     std::to_string(delivery.last_seq);
        message.origin = origin_;
        message.sent_ms = NowMs();
        const auto& kept = incidents_->Kept();
        message.incidents.assign(kept.begin(), kept.end());
        message.left_out = incidents_->Total() - kept.size();
        message.changes = changes_;
        message.lost = delivery.lost;
        return sender_->Send(message);
    }

    void Clear() override {
        incidents_.reset();
        changes_ = 0;
    }

    std::string Test() override { return sender_->Send(TestMessage(origin_, NowMs())); }

  private:
    const std::unique_ptr<MessageSender> sender_;
    const Origin origin_;
    const RootsOf roots_;
    std::unique_ptr<Incidents> incidents_;  ///< null: nothing was collected
    long long changes_ = 0;
};

using Format = std::string (*)(const Origin&, const Json::Value& report);

class RecordChannel : public Channel {
  public:
    RecordChannel(std::unique_ptr<RecordSender> sender, Origin origin, Format format)
        : sender_(std::move(sender)), origin_(std::move(origin)), format_(format) {}

    void Add(const Json::Value& report) override {
        std::string record = format_(origin_, report);
        if (!record.empty()) records_.push_back(std::move(record));
    }

    std::string Deliver(const Delivery&) override {
        return records_.empty() ? "" : sender_->Send(records_);
    }

    void Clear() override { records_.clear(); }

    std::string Test() override {
        Json::Value report(Json::objectValue);
        report["time_ms"] = static_cast<Json::Int64>(NowMs());
        report["outcome"] = "reported only";
        report["body"] =
            R"({"event_count":1,"file_info":[{"action":"test","file_path":"/test of Sentrel"}]})";
        return sender_->Send({format_(origin_, report)});
    }

  private:
    const std::unique_ptr<RecordSender> sender_;
    const Origin origin_;
    const Format format_;
    std::vector<std::string> records_;
};

Pacing RecordPacing() {
    Pacing pacing;
    pacing.most = kMostRecords;
    pacing.longest_ms = Incidents::kLongestMs;
    return pacing;
}

}  // namespace

std::vector<ChannelPlan> PlanChannels(const Settings& settings, const Origin& origin,
                                      const RootsOf& roots) {
    std::vector<ChannelPlan> plans;
    Pacing pacing;
    pacing.settle_ms = settings.settle_seconds * kMsPerSecond;
    pacing.longest_ms = Incidents::kLongestMs;
    pacing.most_per_hour = settings.most_per_hour;
    pacing.is_repeated_whole = true;
    pacing.digest_s = settings.digest_minutes * kSecondsPerMinute;
    if (!settings.mail.to.empty()) {
        std::string to;
        for (const std::string& one : settings.mail.to) to += (to.empty() ? "" : ", ") + one;
        plans.push_back({"mail", to, pacing, [mail = settings.mail, origin, roots] {
                             return std::make_unique<MessageChannel>(MakeMailSender(mail), origin,
                                                                     roots);
                         }});
    }
    if (!settings.webhook.url.empty()) {
        plans.push_back({"webhook", SDK::HttpOrigin(settings.webhook.url), pacing,
                         [webhook = settings.webhook, origin, roots] {
                             return std::make_unique<MessageChannel>(MakeWebhookSender(webhook),
                                                                     origin, roots);
                         }});
    }
    const auto add_records = [&](const char* name, const std::string& to, auto make,
                                 Format format) {
        if (to.empty()) return;
        plans.push_back({name, to, RecordPacing(), [to, make, origin, format] {
                             return std::make_unique<RecordChannel>(make(to), origin, format);
                         }});
    };
    add_records("syslog", settings.syslog, MakeSocketSender, FormatSyslog);
    add_records("journald", settings.journald, MakeSocketSender, FormatJournal);
    add_records("ocsf", settings.ocsf, MakeFileSender, FormatOcsf);
    return plans;
}

}  // namespace Notify
