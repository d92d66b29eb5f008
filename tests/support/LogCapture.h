#pragma once

#include <gtest/gtest.h>
#include <sdk/log/LoggerUtils.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "TempDir.h"

namespace test {

/// Writes the agent's log at all levels to a file of its own during its lifetime.
class LogCapture {
  public:
    LogCapture() { Start(); }
    ~LogCapture() { SDK::LoggerUtils::GetInstance()->Shutdown(); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// The lines so far. Records that other threads log during the call are lost.
    std::vector<std::string> Lines() const {
        SDK::LoggerUtils::GetInstance()->Shutdown();
        std::istringstream text(TempDir::Read(directory_.Path("agent.log")));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) lines.push_back(line);
        Start();
        return lines;
    }

    /// What the log writer has written so far.
    std::string Text() const { return TempDir::Read(directory_.Path("agent.log")); }

    /// The number of lines of that priority ("Error", "Information") that contain `text`.
    long Count(const std::string& priority, const std::string& text) const {
        const std::vector<std::string> lines = Lines();
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find("[" + priority + "]") != std::string::npos &&
                   line.find(text) != std::string::npos;
        });
    }

  private:
    void Start() const {
        SDK::LoggerUtils::Settings settings;
        settings.directory = directory_.Path();
        settings.level = "trace";
        std::string error;
        EXPECT_TRUE(SDK::LoggerUtils::GetInstance()->Configure(settings, error)) << error;
    }

    const TempDir directory_;
};

}  // namespace test
