// Owns the callbacks, and a pushed policy while it is dispatched. Module::RefreshPolicy takes the
// gate. Callbacks run on the framework thread, long actions on their own thread, none with the lock
// held.
#include "policies/CallbackRegistry.h"

#include <framework/Module.h>
#include <framework/Policy.h>

#include <algorithm>

#include "base/ExceptionBarrier.h"

namespace Framework {

bool CallbackRegistry::AddPolicy(Module& module, const std::string& id,
                                 std::unique_ptr<AbstractPolicyCallback> callback) {
    if (!callback) return false;
    return Add(std::make_shared<Entry>(Entry{&module, id, std::move(callback), nullptr, 0}));
}

bool CallbackRegistry::AddTasklet(Module& module, const std::string& id,
                                  std::unique_ptr<AbstractTaskletCallback> callback) {
    if (!callback) return false;
    return Add(std::make_shared<Entry>(Entry{&module, id, nullptr, std::move(callback), 0}));
}

bool CallbackRegistry::Add(std::shared_ptr<Entry> entry) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto same = std::find_if(entries_.begin(), entries_.end(), [&](const auto& each) {
        return each->module == entry->module && each->id == entry->id;
    });
    if (same == entries_.end()) {
        entries_.push_back(std::move(entry));
        return true;
    }
    entry.swap(*same);
    idle_.wait(lock, [&] { return entry->long_actions == 0; });
    return true;
}

void CallbackRegistry::Remove(const Module& module, const std::string& id) {
    RemoveIf([&](const Entry& entry) { return entry.module == &module && entry.id == id; });
}

void CallbackRegistry::RemoveAll(const Module& module) {
    RemoveIf([&](const Entry& entry) { return entry.module == &module; });
}

void CallbackRegistry::RemoveIf(const std::function<bool(const Entry&)>& matches) {
    Entries removed;
    std::unique_lock<std::mutex> lock(mutex_);
    const auto first = std::stable_partition(entries_.begin(), entries_.end(),
                                             [&](const auto& each) { return !matches(*each); });
    removed.assign(first, entries_.end());
    entries_.erase(first, entries_.end());
    for (const auto& entry : removed) {
        idle_.wait(lock, [&] { return entry->long_actions == 0; });
    }
    lock.unlock();  // callbacks are deleted without the lock
}

std::shared_ptr<AbstractPolicyCallback> CallbackRegistry::FindPolicy(const Module& module,
                                                                     const std::string& id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : entries_) {
        if (entry->module == &module && entry->id == id) return entry->policy;
    }
    return nullptr;
}

PolicyOutcome CallbackRegistry::Dispatch(const std::string& feature,
                                         const std::string& policy_json) const {
    Entries entries;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        entries = entries_;
    }
    PolicyOutcome outcome;
    // A callback may replace the object; the framework then owns the new one.
    Policy* policy = new Policy(feature);
    for (const auto& entry : entries) {
        if (!entry->policy) continue;
        int result = 0;
        entry->module->TakePolicyRejection();  // discards an old rejection
        const std::string thrown = RunGuarded([&] {
            result = entry->module->RefreshPolicy(entry->id, feature, policy_json, policy);
        });
        const std::string rejection = entry->module->TakePolicyRejection();
        if (!thrown.empty()) {
            SDK_LOG(RootLogger(), PRIO_ERROR, "policy callback %s failed on feature %s: %s",
                    entry->id, feature, thrown);
            if (outcome.exception.empty()) outcome.exception = thrown;
        }
        if (policy == nullptr || !policy->IsHandled()) continue;
        outcome.handled = true;
        outcome.result = result;
        outcome.exception = thrown;
        outcome.rejection = rejection;
        break;
    }
    delete policy;
    return outcome;
}

std::shared_ptr<CallbackRegistry::Entry> CallbackRegistry::FindTasklet(
    const std::string& id) const {
    for (const auto& entry : entries_) {
        if (entry->tasklet && entry->id == id) return entry;
    }
    return nullptr;
}

std::future<TaskletOutcome> CallbackRegistry::Invoke(const std::string& id,
                                                     const std::string& request) {
    std::unique_lock<std::mutex> lock(mutex_);
    const std::shared_ptr<Entry> entry = FindTasklet(id);
    if (!entry) return {};
    lock.unlock();
    const bool is_long = entry->tasklet->IsLongAction();
    lock.lock();
    if (is_long) ++entry->long_actions;
    lock.unlock();
    auto action = [this, entry, request, is_long] {
        TaskletOutcome outcome;
        outcome.found = true;
        outcome.exception = RunGuarded([&] { outcome.result = entry->tasklet->invoke(request); });
        if (!outcome.exception.empty()) {
            SDK_LOG(RootLogger(), PRIO_ERROR, "tasklet %s failed: %s", entry->id,
                    outcome.exception);
        }
        if (is_long) {
            const std::lock_guard<std::mutex> done(mutex_);
            --entry->long_actions;
            idle_.notify_all();
        }
        return outcome;
    };
    if (is_long) return std::async(std::launch::async, std::move(action));
    std::packaged_task<TaskletOutcome()> now(std::move(action));
    now();
    return now.get_future();
}

}  // namespace Framework
