#include <framework/Message.h>

namespace Framework {

void Message::Deliver(Task&) {}

}  // namespace Framework
