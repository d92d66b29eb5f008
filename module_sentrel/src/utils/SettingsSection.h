#pragma once

#include <json/value.h>

#include <string>

namespace Engine {

/// Reads the section "sentrel" of conf/agent.json. A value that does not fit is logged, and the
/// caller keeps its default. Stateless; thread-safe.
class SettingsSection {
  public:
    static Json::Value Read();

    /// False: there is no such number between `least` and `most`.
    static bool ReadNumber(const Json::Value& section, const char* name, int least, int most,
                           int& number);

    static void Warn(const char* name, const std::string& expected);
};

}  // namespace Engine
