#include "feature_sentrel/policy_check/PolicyKeys.h"

namespace Engine {

using Type = PolicyKey::Type;

const std::vector<PolicyKey>& DocumentKeys() {
    static const std::vector<PolicyKey> keys = {{"enabled", Type::kBool},
                                                {"content", Type::kObject}};
    return keys;
}

const std::vector<PolicyKey>& ProtectionKeys() {
    static const std::vector<PolicyKey> keys = {
        {"os_type", Type::kInt},           {"backup_type", Type::kInt},
        {"backup_port", Type::kInt},       {"backup_addr", Type::kString},
        {"distime_enable", Type::kBool},   {"disable_timerange", Type::kStringArray},
        {"disable_week", Type::kIntArray}, {"dirlist", Type::kObjectArray},
        {"diff_content", Type::kBool},     {"diff_attr", Type::kBool},
        {"monitor_only", Type::kBool},
    };
    return keys;
}

const std::vector<PolicyKey>& BackUpServerKeys() {
    static const std::vector<PolicyKey> keys = {
        {"backupserver_ip", Type::kString},
        {"backupserver_port", Type::kInt},
        {"backupserver_path", Type::kString},
        {"os_type", Type::kInt},
    };
    return keys;
}

const std::vector<PolicyKey>& EntryKeys() {
    static const std::vector<PolicyKey> keys = {
        {"enable", Type::kBool},
        {"auto_restore", Type::kBool},
        {"filepath", Type::kString},
        {"backup_path", Type::kString},
        {"ignored_postfix", Type::kStringArray},
        {"ignored_subdir", Type::kStringArray},
    };
    return keys;
}

}  // namespace Engine
