#pragma once

#include <map>
#include <memory>

namespace Engine {

class FileNotifyMessage;
class FtraceMessage;

/// Process events, file asset events: kinds of message that other modules of the agent deliver.
class ProcsMessage {
  public:
    struct procInfo;
};
class AssetMessage {
  public:
    struct assetInfo;
};

/// A task that takes messages of the event modules. The actions run on the task's own thread; each
/// does nothing unless overridden. Messages stay the framework's.
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
