#pragma once

#include <module_filenotify/FileNotifyWatchMessage.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "requests/WatchRequest.h"

namespace Engine::FileNotify {

/// Accepts watch requests on senders' threads and keeps them for the task's thread. Owned by
/// FileNotifyTask. Thread-safe.
class WatchRequestQueue {
  public:
    /// Returns the path prefixes below `path` that `receiver` ignores.
    using FindIgnored = std::function<std::vector<std::string>(const std::string& receiver,
                                                               const std::string& path)>;

    /// `find_ignored` may be null; Submit calls it on the sender's thread.
    explicit WatchRequestQueue(FindIgnored find_ignored) : find_ignored_(std::move(find_ignored)) {}

    /// Returns the watch id, or an empty string when the request is refused: an empty or relative
    /// path, no receiver, or no masks. Removing an unknown watch is not an error. After a removal
    /// returns, no message is posted for that watch. Blocks while one is being posted.
    std::string Submit(const FileNotifyWatchMessage& message);

    /// Removes and returns the accepted requests in their order.
    std::vector<WatchRequest> Take();

    /// Revokes all subscriptions and drops all requests.
    void Close();

    /// The components of an absolute path, "." and ".." resolved.
    static std::vector<std::string> Split(const std::string& path);

  private:
    using Key = std::pair<std::string, std::string>;  ///< receiver, watch id

    static WatchRequest Translate(const FileNotifyWatchMessage& message);

    const FindIgnored find_ignored_;
    std::mutex mutex_;
    std::map<Key, std::shared_ptr<Subscription>> subscriptions_;
    std::vector<WatchRequest> requests_;
};

}  // namespace Engine::FileNotify
