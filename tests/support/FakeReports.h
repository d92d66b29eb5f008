#pragma once

#include <framework/QueryRegistry.h>

#include <mutex>
#include <string>

namespace test {

/// Replaces the report store behind the query "reports.read". Answers at once and counts requests.
class FakeReports {
  public:
    explicit FakeReports(Framework::QueryRegistry& queries) : queries_(queries) {
        queries_.Register("reports.read", [this](const Json::Value& r) { return Answer(r); });
    }
    ~FakeReports() { queries_.Unregister("reports.read"); }
    FakeReports(const FakeReports&) = delete;
    FakeReports& operator=(const FakeReports&) = delete;

    void Add(const std::string& body) {
        std::lock_guard<std::mutex> lock(mutex_);
        Json::Value report;
        report["seq"] = static_cast<Json::UInt64>(reports_.size() + 1);
        report["kind"] = "data";
        report["name"] = "2";
        report["body"] = body;
        reports_.append(report);
    }

    int TimesAsked() {
        std::lock_guard<std::mutex> lock(mutex_);
        return asked_;
    }

    Json::Value LastRequest() {
        std::lock_guard<std::mutex> lock(mutex_);
        return last_request_;
    }

  private:
    Json::Value Answer(const Json::Value& request) {
        std::lock_guard<std::mutex> lock(mutex_);
        ++asked_;
        last_request_ = request;
        Json::Value answer;
        answer["reports"] = Json::Value(Json::arrayValue);
        for (const Json::Value& report : reports_) {
            if (report["seq"].asInt64() > request.get("after", 0).asInt64()) {
                answer["reports"].append(report);
            }
        }
        answer["last_seq"] = static_cast<Json::UInt64>(reports_.size());
        return answer;
    }

    Framework::QueryRegistry& queries_;
    std::mutex mutex_;
    Json::Value reports_{Json::arrayValue};
    Json::Value last_request_;
    int asked_ = 0;
};

}  // namespace test
