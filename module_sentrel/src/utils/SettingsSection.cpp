#include "utils/SettingsSection.h"

#include <framework/ConfigManager.h>
#include <sdk/log/Log.h>

#include "base/ModuleLogger.h"

namespace Engine {

Json::Value SettingsSection::Read() {
    return Framework::ConfigManager::GetInstance().Section("sentrel");
}

bool SettingsSection::ReadNumber(const Json::Value& section, const char* name, int least, int most,
                                 int& number) {
    const Json::Value& value = section[name];
    if (value.isNull()) return false;
    if (!value.isInt() || value.asInt() < least || value.asInt() > most) {
        Warn(name, "a number from " + std::to_string(least) + " to " + std::to_string(most));
        return false;
    }
    number = value.asInt();
    return true;
}

void SettingsSection::Warn(const char* name, const std::string& expected) {
    SDK_LOG(ModuleLogger(), PRIO_WARNING,
            "conf/agent.json: /sentrel/%s: must be %s; the default is used.", std::string(name),
            expected);
}

}  // namespace Engine
