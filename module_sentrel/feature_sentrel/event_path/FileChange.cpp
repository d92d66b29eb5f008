#include "feature_sentrel/event_path/FileChange.h"

namespace Engine {

namespace {

constexpr std::uint32_t kArrivalOrLoss = IN_CREATE | IN_DELETE;
constexpr std::uint32_t kMoves = IN_MOVED_FROM | IN_MOVED_TO;

}  // namespace

std::uint32_t WithoutMoves(std::uint32_t mask) {
    if ((mask & IN_MOVED_FROM) != 0) mask |= IN_DELETE;
    if ((mask & IN_MOVED_TO) != 0) mask |= IN_CREATE;
    return mask & ~kMoves;
}

std::uint32_t MergedMask(std::uint32_t kept, std::uint32_t later) {
    const std::uint32_t before = WithoutMoves(kept);
    const std::uint32_t now = WithoutMoves(later);
    if ((now & kArrivalOrLoss) != 0) return now;
    if ((before & (kArrivalOrLoss | IN_MODIFY)) != 0) return before;
    return now;
}

}  // namespace Engine
