#include <module_filenotify/AbstractMessageReceiver.h>

namespace Engine {

void AbstractMessageReceiver::FileNotifyMessageAction(FileNotifyMessage*) {}

// NOLINTBEGIN(performance-unnecessary-value-param): the agreed signature
void AbstractMessageReceiver::ProcsMessageAction(int, unsigned int,
                                                 std::shared_ptr<ProcsMessage::procInfo>) {}
// NOLINTEND(performance-unnecessary-value-param)

void AbstractMessageReceiver::AssetMessageAction(
    unsigned int, const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>&) {}

void AbstractMessageReceiver::FtraceMessageAction(const FtraceMessage*) {}

AbstractMessageReceiver::~AbstractMessageReceiver() = default;

}  // namespace Engine
