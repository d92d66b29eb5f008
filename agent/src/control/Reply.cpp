#include "control/Reply.h"

namespace Agent {

Reply ErrorReply(int status, const std::string& sentence) {
    Reply reply;
    reply.status = status;
    reply.body["error"] = sentence;
    return reply;
}

}  // namespace Agent
