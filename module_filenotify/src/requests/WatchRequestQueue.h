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

/// Takes watch requests on the senders' threads and keeps them until the task's thread comes for
/// them. Any thread.
class WatchRequestQueue {
  public:
    /// The beginnings of paths of which `receiver` needs nothing below `path`.
    using Unneeded = std::function<std::vector<std::string>(const std::string& receiver,
                                                            const std::string& path)>;

    /// `unneeded` may be null; it is called on the senders' threads.
    explicit WatchRequestQueue(Unneeded unneeded) : unneeded_(std::move(unneeded)) {}

    /// The watch id; empty when the request is refused: an empty or relative path, no receiver, no
    /// masks. When a removal returns, nothing more is posted for that watch.
    std::string Submit(const FileNotifyWatchMessage& message);

    std::vector<WatchRequest> Take();

    /// Revokes all subscriptions and forgets all requests.
    void Close();

    /// The components of an absolute path, without ".", and ".." taken back.
    static std::vector<std::string> Split(const std::string& path);

  private:
    using Key = std::pair<std::string, std::string>;  ///< receiver, watch id

    static WatchRequest Translate(const FileNotifyWatchMessage& message);

    const Unneeded unneeded_;
    std::mutex mutex_;
    std::map<Key, std::shared_ptr<Subscription>> subscriptions_;
    std::vector<WatchRequest> requests_;
};

}  // namespace Engine::FileNotify
