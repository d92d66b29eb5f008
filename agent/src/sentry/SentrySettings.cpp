#include "sentry/SentrySettings.h"

namespace Agent {

namespace {

void ReadNumber(const Json::Value& section, const char* key, int least, int most, int& value,
                std::string& error) {
    const Json::Value& given = section[key];
    if (given.isNull()) return;
    if (given.isInt() && given.asInt() >= least && given.asInt() <= most) {
        value = given.asInt();
        return;
    }
    error = std::string("/sentry/") + key + ": must be a number from " + std::to_string(least) +
            " to " + std::to_string(most);
}

}  // namespace

SentrySettings SentrySettings::Read(const Json::Value& section, std::string& error) {
    SentrySettings settings;
    error.clear();
    for (const std::string& name : section.getMemberNames()) {
        const bool is_known = name == "enabled" || name == "answer_ms" || name == "heal_kb" ||
                              name == "most_percent" || name == "who";
        if (!is_known) error = "/sentry/" + name + ": unknown";
    }
    const Json::Value& enabled = section["enabled"];
    if (!enabled.isNull() && !enabled.isBool()) error = "/sentry/enabled: must be true or false";
    if (enabled.isBool()) settings.enabled = enabled.asBool();
    const Json::Value& who = section["who"];
    if (!who.isNull() && who != "on" && who != "executable" && who != "off") {
        error = "/sentry/who: must be \"on\", \"executable\" or \"off\"";
    }
    ReadNumber(section, "answer_ms", 10, 5000, settings.answer_ms, error);
    ReadNumber(section, "heal_kb", 1, 65536, settings.heal_kb, error);
    ReadNumber(section, "most_percent", 1, 100, settings.most_percent, error);
    settings.section = section;
    settings.section["answer_ms"] = settings.answer_ms;
    settings.section["heal_kb"] = settings.heal_kb;
    settings.section["most_percent"] = settings.most_percent;
    if (!error.empty()) settings.enabled = false;
    return settings;
}

}  // namespace Agent
