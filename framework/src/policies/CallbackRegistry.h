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

/// The registered callbacks in the order of their registration. Ids are unique within a module.
/// Owned by the engine; owns the callbacks. Thread-safe; callbacks run on the framework thread.
class CallbackRegistry {
  public:
    // Replaces, in its position, and deletes a callback of the same module and id. False without a
    // callback.
    bool AddPolicy(Module& module, const std::string& id,
                   std::unique_ptr<AbstractPolicyCallback> callback);
    bool AddTasklet(Module& module, const std::string& id,
                    std::unique_ptr<AbstractTaskletCallback> callback);

    /// Blocks until a long action of that tasklet has ended.
    void Remove(const Module& module, const std::string& id);
    void RemoveAll(const Module& module);

    std::shared_ptr<AbstractPolicyCallback> FindPolicy(const Module& module,
                                                       const std::string& id) const;

    /// Offers the policy to the callbacks in order; continues after one that throws. The outcome
    /// holds an exception only when no later callback took the policy. Framework thread only.
    PolicyOutcome Dispatch(const std::string& feature, const std::string& policy_json) const;

    /// Starts the tasklet; the result is ready at once unless it is a long action. A future without
    /// state when there is no such tasklet. Framework thread only.
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
