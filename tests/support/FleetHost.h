#pragma once

#include <sdk/text/JsonUtils.h>

#include <string>

#include "support/Fleet.h"
#include "support/ProtectedSite.h"

namespace test {

/// An agent of a fleet with its site, a broker and a collector. Nothing runs yet.
class FleetHost : public ProtectedSite {
  protected:
    static constexpr const char* kAgentId = "5c7a3ad2-6a01-4d61-a8a1-2d9a41a7a001";
    static constexpr const char* kOtherId = "5c7a3ad2-6a01-4d61-a8a1-2d9a41a7a002";

    FleetHost() : broker_({kAgentId, kOtherId}), collector_(broker_) {
        std::filesystem::create_directories(agent_.Path("data"));
        std::ofstream(agent_.Path("data/agent_id")) << kAgentId << "\n";
        JoinFleet(Json::Value(Json::objectValue));
    }

    /// Writes the section "fleet" with these keys beside the broker.
    void JoinFleet(Json::Value fleet) const {
        const std::string file = agent_.Path("conf/agent.json");
        const std::string text = TempDir::Read(file);
        Json::Value conf;
        ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), conf), 0);
        fleet["broker"] = broker_.JsonOf("");
        fleet["broker"].removeMember("user");
        fleet["heartbeat_seconds"] = 1;
        conf["fleet"] = fleet;
        std::ofstream(file, std::ios::trunc) << SDK::JsonUtils::JsonToString(conf);
    }

    /// The only host of the status; null when there is none.
    Json::Value HostAtCollector() const {
        const Json::Value status = collector_.Status();
        return status["hosts"].size() == 1 ? status["hosts"][0] : Json::Value();
    }

    std::vector<Json::Value> Reports(const std::string& kind = "") const {
        std::vector<std::string> words{"reports", "--limit", "100000"};
        if (!kind.empty()) words.insert(words.end(), {"--kind", kind});
        return collector_.Lines(words);
    }

    Broker broker_;
    CollectorProcess collector_;
};

}  // namespace test
