#pragma once

#include <json/value.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {

/// Named queries between modules and the control API that need no common headers: "status.sentrel",
/// "reports.read", "policy.check.sentrel_feature". Thread-safe.
///
/// All names that begin with "status." are queried for `morvanectl status`; the members of their
/// answers become members of the status document.
class QueryRegistry {
  public:
    /// Answers `request`. Runs on the caller's thread, on several threads at a time. Must not wait
    /// for tasks.
    using Handler = std::function<Json::Value(const Json::Value& request)>;

    /// Replaces the handler of that name, if any.
    void Register(const std::string& name, Handler handler);

    /// Blocks until running calls of that name have returned; does nothing for unknown names. Not
    /// from a handler of that name.
    void Unregister(const std::string& name);

    /// False when no handler has that name, or it threw (logged).
    bool Ask(const std::string& name, const Json::Value& request, Json::Value& answer) const;

    std::vector<std::string> Names(const std::string& prefix) const;

  private:
    struct Entry;
    mutable std::mutex mutex_;
    mutable std::condition_variable idle_;
    std::map<std::string, std::shared_ptr<Entry>> entries_;
};

}  // namespace Framework
