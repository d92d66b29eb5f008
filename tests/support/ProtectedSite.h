#pragma once

#include <gtest/gtest.h>
#include <json/writer.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/AgentProcess.h"
#include "support/WaitFor.h"

namespace test {

/// A small site, its backup folder and an agent to protect it.
class ProtectedSite : public testing::Test {
  protected:
    static constexpr std::chrono::seconds kDeadline{20};

    ProtectedSite() {
        for (const char* name : {"index.html", "about.html", "news.html", "img/logo.svg"}) {
            site_.Write(name, Good(name));
        }
    }

    static std::string Good(const std::string& name) { return "This is " + name + "\n"; }

    Json::Value SitePolicy() const { return ProtectionPolicy({{site_.Path(), backup_.Path()}}); }

    bool Await(const std::function<bool()>& condition) const {
        return WaitFor(condition, Scaled(kDeadline));
    }

    /// Waits until the first backup is complete and every path is watched.
    bool AwaitProtection() const {
        return Await([&] { return agent_.IsProtecting(); });
    }

    /// Starts the agent and protects the site.
    void Protect() {
        ASSERT_TRUE(agent_.Start());
        ASSERT_EQ(agent_.Apply(SitePolicy()), 0);
        ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    }

    /// Changes a page and waits for its restore.
    bool TamperingIsUndone(const std::string& name) const {
        std::ofstream(site_.Path(name), std::ios::app) << "defaced";
        return Await([&] { return TempDir::Read(site_.Path(name)) == Good(name); });
    }

    TempDir site_;
    TempDir backup_;
    AgentProcess agent_;
};

}  // namespace test
