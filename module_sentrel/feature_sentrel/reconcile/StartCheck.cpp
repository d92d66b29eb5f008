// Decides whether a rule goes on with an approved state. It must not compare anything
// (BaselineCheck does).
#include "feature_sentrel/reconcile/StartCheck.h"

#include <framework/ConfigManager.h>
#include <sdk/log/Log.h>

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "base/ModuleLogger.h"
#include "state/ModuleState.h"
#include "utils/SentrelUtils.h"
#include "utils/SettingsSection.h"

namespace Engine {

namespace {

constexpr int kMostGenerations = 100;
constexpr int kHours = 24;

constexpr std::array<std::pair<const char*, CheckAction>, 3> kActions = {
    {{"hold", CheckAction::kHold},
     {"restore", CheckAction::kRestore},
     {"accept", CheckAction::kAccept}}};

void ReadAction(const Json::Value& section, const char* name, CheckAction& action) {
    const Json::Value& value = section[name];
    if (value.isNull()) return;
    for (const auto& [text, one] : kActions) {
        if (value.isString() && value.asString() == text) {
            action = one;
            return;
        }
    }
    SettingsSection::Warn(name, R"("hold", "restore" or "accept")");
}

/// Nothing was approved of objects that could not be copied.
void HoldUncopied(ModuleState& state, const SentrelDirRule& rule,
                  const Baseline::Manifest& manifest) {
    for (std::size_t i = 0; i < manifest.Size(); ++i) {
        const Baseline::ManifestEntry entry = manifest.At(i);
        if (entry.IsOpen()) state.progress.Hold(rule, std::string(entry.path), true);
    }
}

bool GoesOn(ModuleState& state, const SentrelDirRule& rule) {
    const RuleBaselines::Adopted adopted = state.baselines.Adopt(rule);
    switch (adopted.outcome) {
        case RuleBaselines::Adoption::kAdopted: {
            const std::uint64_t round = state.progress.BeginCopy();
            const RuleBaselines::Known manifest = state.baselines.Of(rule);
            if (!state.progress.NoteComplete(
                    rule, round, {}, static_cast<unsigned>(manifest->Info().attribute_kinds))) {
                return false;
            }
            HoldUncopied(state, rule, *manifest);
            state.status.NoteAdoptedBackup(rule.real_path, manifest->Info().created);
            return true;
        }
        case RuleBaselines::Adoption::kNone:
            return false;
        default:
            SDK_LOG(ModuleLogger(), PRIO_ERROR, "%s: the approved state cannot be used: %s.",
                    rule.real_path, adopted.problem);
            return true;
    }
}

}  // namespace

CheckSettings CheckSettings::Read() {
    const Json::Value section = Framework::ConfigManager::GetInstance().Section("sentrel");
    CheckSettings settings;
    ReadAction(section, "start_check", settings.at_start);
    ReadAction(section, "pause_end_check", settings.after_pause);
    int generations = 0;
    if (SettingsSection::ReadNumber(section, "baseline_generations", 1, kMostGenerations,
                                    generations)) {
        settings.generations = static_cast<std::size_t>(generations);
    }
    SettingsSection::ReadNumber(section, "full_check_hour", -1, kHours - 1,
                                settings.full_check_hour);
    return settings;
}

void GoOnFromBaselines(ModuleState& state, const std::list<SentrelDirRule>& rules,
                       CheckAction action, const char* approval, LentKey::Key key) {
    if (!SentrelUtils::GetInstance()->MakesLocalBackup()) return;
    for (const SentrelDirRule& rule : rules) {
        if (action != CheckAction::kAccept && GoesOn(state, rule)) {
            state.progress.SetChecking(rule, true);
        } else {
            state.baselines.BeginCopying(rule, approval, key);
        }
    }
}

}  // namespace Engine
