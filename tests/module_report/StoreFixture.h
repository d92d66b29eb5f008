#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "store/ReportStore.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace test {

constexpr std::int64_t kStartMs = 1'700'000'000'000;

/// A store in a folder of its own, with a clock that the test sets.
class StoreTest : public ::testing::Test {
  protected:
    StoreTest() { Reopen(); }

    void Reopen() {
        store_.reset();
        store_ = std::make_unique<Engine::ReportStore>(path_, settings_,
                                                       [this] { return now_ms_.load(); });
    }

    /// Its sequence number; 0 when it was not stored.
    std::int64_t Store(const std::string& body, const std::string& kind = Engine::kDataKind,
                       const std::string& name = Engine::kAlarmEvent) {
        Engine::Report report;
        report.kind = kind;
        report.name = name;
        report.body = body;
        return store_->Store(report) ? report.seq : 0;
    }

    std::vector<Engine::Report> ReadAll() {
        Engine::ReportFilter filter;
        filter.limit = 100000;
        Engine::ReportPage page;
        EXPECT_TRUE(store_->Read(filter, std::chrono::milliseconds(0), page));
        return page.reports;
    }

    LogCapture log_;
    TempDir directory_;
    const std::string path_ = directory_.Path("data/reports.db");
    Engine::ReportSettings settings_;
    std::atomic<std::int64_t> now_ms_{kStartMs};
    std::unique_ptr<Engine::ReportStore> store_;
};

}  // namespace test
