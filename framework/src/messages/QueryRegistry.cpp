// Owns the handlers of queries. Must not interpret requests (handlers do). Thread-safe; a
// handler runs on the caller's thread without the lock.
#include <framework/QueryRegistry.h>
#include <sdk/text/StrUtils.h>

#include "base/ExceptionBarrier.h"

namespace Framework {

struct QueryRegistry::Entry {
    Handler handler;
    int running = 0;
};

void QueryRegistry::Register(const std::string& name, Handler handler) {
    Unregister(name);
    auto entry = std::make_shared<Entry>();
    entry->handler = std::move(handler);
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_[name] = std::move(entry);
}

void QueryRegistry::Unregister(const std::string& name) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto found = entries_.find(name);
    if (found == entries_.end()) return;
    const std::shared_ptr<Entry> entry = found->second;
    entries_.erase(found);
    idle_.wait(lock, [&] { return entry->running == 0; });
}

bool QueryRegistry::Ask(const std::string& name, const Json::Value& request,
                        Json::Value& answer) const {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto found = entries_.find(name);
    if (found == entries_.end()) return false;
    std::shared_ptr<Entry> entry = found->second;
    ++entry->running;
    lock.unlock();
    const std::string thrown = RunGuarded([&] { answer = entry->handler(request); });
    if (!thrown.empty()) {
        SDK_LOG(RootLogger(), PRIO_ERROR, "query %s failed: %s", name, thrown);
    }
    lock.lock();
    if (--entry->running == 0) idle_.notify_all();
    return thrown.empty();
}

std::vector<std::string> QueryRegistry::Names(const std::string& prefix) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> names;
    for (auto it = entries_.lower_bound(prefix); it != entries_.end(); ++it) {
        if (!SDK::StrUtils::BeginsWith(it->first, prefix)) break;
        names.push_back(it->first);
    }
    return names;
}

}  // namespace Framework
