#include <sdk/text/Printable.h>

#include <iostream>

#include "base/CollectorSettings.h"
#include "commands/Commands.h"
#include "notify/FleetNotifier.h"

namespace Collector {

int TestNotify(const Arguments& arguments) {
    CollectorSettings settings;
    Notify::Settings notify;
    std::string error;
    if (!ReadSettings(arguments.config, settings, error)) return Fail(error);
    if (!MakeNotifySettings(settings.notify, notify, error)) {
        return Fail(arguments.config + ": " + error);
    }
    const Json::Value results = FleetNotifier(notify, settings.database).Test();
    if (results.empty()) return Fail("no channel is on; see \"notify\" in " + arguments.config);
    int exit_code = kExitOk;
    for (const Json::Value& result : results) {
        const std::string why = result["error"].asString();
        std::cout << result["channel"].asString() << "  "
                  << SDK::Printable(why.empty() ? "sent " + result["to"].asString()
                                                : "failed: " + why)
                  << "\n";
        if (!why.empty()) exit_code = kExitFailed;
    }
    return exit_code;
}

}  // namespace Collector
