#include "shield/ShieldRoom.h"

namespace Sentry {

void ShieldRoom::Start(const Json::Value& settings, pid_t, Tell) {
    if (settings["answer_ms"].isInt()) state_.answer_ms = settings["answer_ms"].asInt();
}

Json::Value ShieldRoom::Answer(const std::string& operation, const Json::Value&) {
    Json::Value answer(Json::objectValue);
    answer["error"] = "There is no operation shield." + operation + ".";
    return answer;
}

Json::Value ShieldRoom::Status() const {
    Json::Value status(Json::objectValue);
    status["state"] = "off";
    return status;
}

void ShieldRoom::Stop() {
    state_.is_armed = false;
}

}  // namespace Sentry
