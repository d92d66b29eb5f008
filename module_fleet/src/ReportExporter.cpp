// Owns the window and the mark of one report stream. Must not know the broker (FleetWorker does).
// Runs on the worker's thread.
#include "ReportExporter.h"

#include <sdk/text/CryptoCodeUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <utility>

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr const char* kPrefix = "fleet-";
constexpr std::int64_t kFirstPatienceMs = 5'000;
constexpr std::int64_t kMostPatienceMs = 60'000;
constexpr std::int64_t kLeastAgainMs = 250;
constexpr std::size_t kMostBytesInFlight = 2 * 1024 * 1024;
constexpr const char* kAlarmEvent = "2";

std::int64_t Number(const Json::Value& object, const char* key) {
    return object.isObject() && object[key].isInt64() ? object[key].asInt64() : 0;
}

std::string KindOf(const std::string& kind, const std::string& name) {
    return kind == "data" && name == kAlarmEvent ? "alarm" : kind;
}

}  // namespace

ReportExporter::ReportExporter(int window, Ask ask, Publish publish, TellLoss tell_loss)
    : window_(window),
      ask_(std::move(ask)),
      publish_(std::move(publish)),
      tell_loss_(std::move(tell_loss)),
      patience_ms_(kFirstPatienceMs) {}

void ReportExporter::Restart() {
    ForgetSent();
    patience_ms_ = kFirstPatienceMs;
}

void ReportExporter::ForgetSent() {
    sent_ = acknowledged_;
    in_flight_.clear();
    bytes_in_flight_ = 0;
}

void ReportExporter::Pump(std::int64_t now_ms) {
    if (stream_.empty() && !FindStream()) return;
    if (in_flight_.empty()) {
        progress_ms_ = now_ms;
    } else if (now_ms - progress_ms_ >= patience_ms_) {
        patience_ms_ = std::min(patience_ms_ * 2, kMostPatienceMs);
        SendAgain(now_ms);
    }
    const std::int64_t space = window_ - static_cast<std::int64_t>(in_flight_.size());
    if (space <= 0 || bytes_in_flight_ >= kMostBytesInFlight) return;
    Json::Value request(Json::objectValue);
    request["after"] = Json::Int64{sent_};
    request["limit"] = Json::Int64{space};
    Json::Value answer;
    if (!ask_("reports.read", request, answer) || !answer["reports"].isArray()) return;
    last_seq_ = std::max(last_seq_, Number(answer, "last_seq"));
    for (const Json::Value& report : answer["reports"]) {
        if (bytes_in_flight_ >= kMostBytesInFlight || !Send(report)) return;
    }
}

bool ReportExporter::FindStream() {
    Json::Value status;
    if (!ask_("status.report", Json::Value(Json::objectValue), status)) return false;
    const Json::Value& reports = status["reports"];
    if (!reports.isObject() || !JsonUtils::GetBoolValue(reports, "working", false)) return false;
    const Json::Value& exporters = reports["exporters"];
    if (exporters.isObject()) {
        for (const std::string& name : exporters.getMemberNames()) {
            if (!SDK::StrUtils::BeginsWith(name, kPrefix)) continue;
            stream_ = name;
            acknowledged_ = Number(exporters[name], "acked_seq");
        }
    }
    if (stream_.empty() && !BeginStream()) return false;
    sent_ = highest_sent_ = known_lost_ = acknowledged_;
    return true;
}

/// What the store had dropped before is no loss of this stream.
bool ReportExporter::BeginStream() {
    Json::Value request(Json::objectValue);
    request["after"] = 0;
    request["limit"] = 1;
    Json::Value answer;
    if (!ask_("reports.read", request, answer) || !answer["reports"].isArray()) return false;
    const Json::Value& reports = answer["reports"];
    const std::int64_t first =
        reports.empty() ? Number(answer, "last_seq") : Number(reports[0], "seq") - 1;
    stream_ = kPrefix + SDK::CryptoCodeUtils::GenerateUUID();
    if (AcknowledgeUpTo(first)) return true;
    stream_.clear();
    return false;
}

bool ReportExporter::AcknowledgeUpTo(std::int64_t seq) {
    Json::Value request(Json::objectValue);
    request["exporter"] = stream_;
    request["seq"] = Json::Int64{seq};
    Json::Value answer;
    if (!ask_("reports.ack", request, answer) || !answer["acked_seq"].isInt64()) return false;
    acknowledged_ = seq;
    return true;
}

void ReportExporter::SendAgain(std::int64_t now_ms) {
    ForgetSent();
    progress_ms_ = again_ms_ = now_ms;
}

bool ReportExporter::Send(const Json::Value& report) {
    Fleet::Report out;
    out.stream = stream_;
    out.seq = Number(report, "seq");
    out.previous = sent_;
    out.acknowledged = acknowledged_;
    out.time_ms = Number(report, "time_ms");
    out.name = JsonUtils::GetStringValue(report, "name", "");
    out.kind = KindOf(JsonUtils::GetStringValue(report, "kind", ""), out.name);
    out.outcome = JsonUtils::GetStringValue(report, "outcome", "");
    if (report["duration_ms"].isNumeric()) out.duration_ms = report["duration_ms"].asString();
    out.evidence = JsonUtils::GetStringValue(report, "evidence", "");
    out.body = JsonUtils::GetStringValue(report, "body", "");
    NoteGap(out.seq);
    if (!publish_(out)) return false;
    sent_ = out.seq;
    highest_sent_ = std::max(highest_sent_, sent_);
    in_flight_.push_back({sent_, std::min(out.body.size(), Fleet::kMaxBodyBytes)});
    bytes_in_flight_ += in_flight_.back().bytes;
    return true;
}

void ReportExporter::NoteGap(std::int64_t seq) {
    const std::int64_t from = std::max(sent_, known_lost_);
    if (seq - 1 <= from) return;
    const std::int64_t count = seq - 1 - from;
    known_lost_ = seq - 1;
    lost_ += count;
    tell_loss_(count, seq - 1);
}

void ReportExporter::Take(const Fleet::Acknowledgement& acknowledgement, std::int64_t now_ms) {
    if (stream_.empty() || acknowledgement.stream != stream_) return;
    const std::int64_t seq = std::min(acknowledgement.seq, highest_sent_);
    if (seq > acknowledged_ && AcknowledgeUpTo(seq)) {
        while (!in_flight_.empty() && in_flight_.front().seq <= seq) {
            bytes_in_flight_ -= in_flight_.front().bytes;
            in_flight_.pop_front();
        }
        sent_ = std::max(sent_, seq);
        progress_ms_ = now_ms;
        patience_ms_ = kFirstPatienceMs;
    }
    if (acknowledgement.again && !in_flight_.empty() && now_ms - again_ms_ >= kLeastAgainMs) {
        SendAgain(now_ms);
    }
}

ExportState ReportExporter::State() const {
    ExportState state;
    state.stream = stream_;
    state.acknowledged = acknowledged_;
    state.last_seq = std::max(last_seq_, highest_sent_);
    state.in_flight = static_cast<std::int64_t>(in_flight_.size());
    state.lost = lost_;
    return state;
}

}  // namespace Engine
