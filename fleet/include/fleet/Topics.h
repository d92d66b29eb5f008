#pragma once

#include <optional>
#include <string>

namespace Fleet {

/// The topics of one agent: "sentrel/<agent id>/<channel>[/<leaf>]".
struct Topic {
    std::string agent_id;
    /// "report", "state", "policy", "result", "ack", "act" or "act_result"
    std::string channel;
    std::string leaf;  ///< kind of the report, feature of the policy or number of the act
};

/// 1 to 64 letters, digits and "-": the form that a topic and a user of the broker can have.
bool IsAgentId(const std::string& text);

/// 1 to 64 letters, digits, "_", "-" and ".".
bool IsLeaf(const std::string& text);

/// The parts of a topic; "policy/<feature>/result" has the channel "result", "act/<number>/result"
/// has "act_result". None for a topic that is not of this form.
std::optional<Topic> ParseTopic(const std::string& topic);

std::string ReportTopic(const std::string& agent_id, const std::string& kind);
std::string StateTopic(const std::string& agent_id);
std::string AckTopic(const std::string& agent_id);
std::string PolicyTopic(const std::string& agent_id, const std::string& feature);
std::string ResultTopic(const std::string& agent_id, const std::string& feature);
std::string ActTopic(const std::string& agent_id, const std::string& number);
std::string ActResultTopic(const std::string& agent_id, const std::string& number);

}  // namespace Fleet
