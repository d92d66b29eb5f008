#pragma once

#include <framework/Callbacks.h>
#include <framework/PolicyOutcome.h>

#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Framework {

class Module;

/// The registered callbacks, in the order of their registration. An id belongs to its module: two
/// modules may use the same. Owned by the engine, owns the callbacks; any thread, but the callbacks
/// run on the framework thread.
class CallbackRegistry {
  public:
    // A callback of the same module and id is freed, and the new one takes its place in the order.
    // False when there is no callback.
    bool AddPolicy(Module& module, const std::string& id,
                   std::unique_ptr<AbstractPolicyCallback> callback);
    bool AddTasklet(Module& module, const std::string& id,
                    std::unique_ptr<AbstractTaskletCallback> callback);

    /// Waits for a long action of that tasklet to end.
    void Remove(const Module& module, const std::string& id);
    void RemoveAll(const Module& module);

    std::shared_ptr<AbstractPolicyCallback> FindPolicy(const Module& module,
                                                       const std::string& id) const;

    /// Offers the policy to the callbacks; a callback that throws has had its turn. The outcome
    /// tells of an exception only when no later callback took the policy. Framework thread only.
    PolicyOutcome Dispatch(const std::string& feature, const std::string& policy_json) const;

    /// Begins the tasklet; the result is there already unless it is a long action. Framework thread
    /// only. A future without a state: no such tasklet.
    std::future<TaskletOutcome> Invoke(const std::string& id, const std::string& request);

  private:
    struct Entry {
        Module* module;
        std::string id;
        std::shared_ptr<AbstractPolicyCallback> policy;
        std::shared_ptr<AbstractTaskletCallback> tasklet;
        int long_actions = 0;
    };
    using Entries = std::vector<std::shared_ptr<Entry>>;

    bool Add(std::shared_ptr<Entry> entry);
    void RemoveIf(const std::function<bool(const Entry&)>& matches);
    std::shared_ptr<Entry> FindTasklet(const std::string& id) const;

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    Entries entries_;
};

}  // namespace Framework
