#include <fleet/Topics.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace Fleet {

namespace {

constexpr std::size_t kMostCharacters = 64;
constexpr std::size_t kMostLevels = 5;
constexpr const char* kRoot = "sentrel";

bool IsLetterOrDigit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool IsMadeOf(const std::string& text, const char* others) {
    return !text.empty() && text.size() <= kMostCharacters &&
           std::all_of(text.begin(), text.end(), [others](char c) {
               return IsLetterOrDigit(c) || (c != '\0' && std::strchr(others, c) != nullptr);
           });
}

std::vector<std::string> Levels(const std::string& topic) {
    std::vector<std::string> levels(1);
    for (const char c : topic) {
        if (c != '/') {
            levels.back() += c;
        } else if (levels.size() > kMostLevels) {
            break;
        } else {
            levels.emplace_back();
        }
    }
    return levels;
}

std::string Below(const std::string& agent_id, const std::string& rest) {
    return std::string(kRoot) + "/" + agent_id + "/" + rest;
}

}  // namespace

bool IsAgentId(const std::string& text) {
    return IsMadeOf(text, "-");
}

bool IsLeaf(const std::string& text) {
    return IsMadeOf(text, "_-.");
}

std::optional<Topic> ParseTopic(const std::string& topic) {
    const std::vector<std::string> levels = Levels(topic);
    if (levels.size() < 3 || levels[0] != kRoot || !IsAgentId(levels[1])) return std::nullopt;
    const std::string& channel = levels[2];
    if (levels.size() == 3 && (channel == "state" || channel == "ack")) {
        return Topic{levels[1], channel, ""};
    }
    if (levels.size() == 3 || !IsLeaf(levels[3])) return std::nullopt;
    if (levels.size() == 4 && (channel == "report" || channel == "policy" || channel == "act")) {
        return Topic{levels[1], channel, levels[3]};
    }
    if (levels.size() != 5 || levels[4] != "result") return std::nullopt;
    if (channel == "policy") return Topic{levels[1], "result", levels[3]};
    if (channel == "act") return Topic{levels[1], "act_result", levels[3]};
    return std::nullopt;
}

std::string ReportTopic(const std::string& agent_id, const std::string& kind) {
    return Below(agent_id, "report/" + kind);
}

std::string StateTopic(const std::string& agent_id) {
    return Below(agent_id, "state");
}

std::string AckTopic(const std::string& agent_id) {
    return Below(agent_id, "ack");
}

std::string PolicyTopic(const std::string& agent_id, const std::string& feature) {
    return Below(agent_id, "policy/" + feature);
}

std::string ResultTopic(const std::string& agent_id, const std::string& feature) {
    return Below(agent_id, "policy/" + feature + "/result");
}

std::string ActTopic(const std::string& agent_id, const std::string& number) {
    return Below(agent_id, "act/" + number);
}

std::string ActResultTopic(const std::string& agent_id, const std::string& number) {
    return ActTopic(agent_id, number) + "/result";
}

}  // namespace Fleet
