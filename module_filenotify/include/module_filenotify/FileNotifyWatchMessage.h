#pragma once

#include <framework/Message.h>
#include <module_filenotify/FileNotifyOpt.h>

#include <string>
#include <vector>

namespace Framework {
class Task;
}

namespace Engine {

/// A watch request for the task "filenotify_task". Send it with SyncSendDirectMsg. The reply is the
/// watch id: the path without a trailing "/" ("/" stays "/"). An empty reply means refused: an
/// empty or relative path, or no masks. Immutable, so thread-safe.
class FileNotifyWatchMessage : public Framework::Message {
  public:
    /// `receiver`: a registered task that is an AbstractMessageReceiver; only its id is kept.
    /// `path`: absolute; a directory or a file, which need not exist yet. `masks` are or-ed.
    FileNotifyWatchMessage(Framework::Task* receiver, const std::string& path,
                           const std::vector<unsigned int>& masks, const _FileNotifyOpt& options);

    const std::string& GetReceiverId() const { return receiver_id_; }
    const std::string& GetPath() const { return path_; }
    unsigned int GetMask() const { return mask_; }
    const _FileNotifyOpt& GetOptions() const { return options_; }

  private:
    std::string receiver_id_;
    std::string path_;
    unsigned int mask_;
    _FileNotifyOpt options_;
};

}  // namespace Engine
