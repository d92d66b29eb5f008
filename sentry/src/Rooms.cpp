#include "Rooms.h"

#include "shield/ShieldRoom.h"

namespace Sentry {

std::vector<std::unique_ptr<Room>> MakeRooms(SharedState& state) {
    std::vector<std::unique_ptr<Room>> rooms;
    rooms.push_back(std::make_unique<ShieldRoom>(state));
    return rooms;
}

}  // namespace Sentry
