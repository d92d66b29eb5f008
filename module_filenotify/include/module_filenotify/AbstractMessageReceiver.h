#pragma once

#include <map>
#include <memory>

namespace Engine {

class FileNotifyMessage;
class FtraceMessage;

/// Process events and file asset events. Other modules of the agent deliver them.
class ProcsMessage {
  public:
    struct procInfo;
};
class AssetMessage {
  public:
    struct assetInfo;
};

/// A task that receives messages of the event modules. Each action runs on the task's own thread
/// and does nothing unless overridden. The framework owns the messages and frees them after the
/// action.
class AbstractMessageReceiver {
  public:
    AbstractMessageReceiver() = default;
    AbstractMessageReceiver(const AbstractMessageReceiver&) = delete;
    AbstractMessageReceiver& operator=(const AbstractMessageReceiver&) = delete;

    virtual void FileNotifyMessageAction(FileNotifyMessage* msg);
    virtual void ProcsMessageAction(int kind, unsigned int count,
                                    std::shared_ptr<ProcsMessage::procInfo> info);
    virtual void AssetMessageAction(
        unsigned int kind, const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>& assets);
    virtual void FtraceMessageAction(const FtraceMessage* msg);
    virtual ~AbstractMessageReceiver();
};

}  // namespace Engine
