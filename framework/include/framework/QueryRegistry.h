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

/// Named questions that modules answer to each other and to the control API, without knowing one
/// another: "status.sentrel", "reports.read", "policy.check.sentrel_feature".
///
/// Names that begin with "status." are asked for `morvanectl status`, and the members of their
/// answer become members of the status document. Any thread.
class QueryRegistry {
  public:
    /// Answers `request`; runs on the asking thread, and on several at once. Must not block on
    /// tasks.
    using Handler = std::function<Json::Value(const Json::Value& request)>;

    /// Replaces the handler of that name, if any.
    void Register(const std::string& name, Handler handler);

    /// Waits until running calls of that name have returned; unknown names are a no-op. Not from
    /// within a handler of that name.
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
