#include <framework/Task.h>
#include <module_filenotify/FileNotifyWatchMessage.h>

#include <numeric>

namespace Engine {

FileNotifyWatchMessage::FileNotifyWatchMessage(Framework::Task* receiver, const std::string& path,
                                               const std::vector<unsigned int>& masks,
                                               const _FileNotifyOpt& options)
    : receiver_id_(receiver != nullptr ? receiver->Id() : std::string()),
      path_(path),
      mask_(std::accumulate(masks.begin(), masks.end(), 0U,
                            [](unsigned int all, unsigned int one) { return all | one; })),
      options_(options) {}

}  // namespace Engine
