#include "Rooms.h"

#include "shield/ShieldRoom.h"
#include "who/WhoRoom.h"

namespace Sentry {

std::vector<std::unique_ptr<Room>> MakeRooms(SharedState& state) {
    std::vector<std::unique_ptr<Room>> rooms;
    rooms.push_back(std::make_unique<ShieldRoom>(state));
    rooms.push_back(std::make_unique<WhoRoom>());
    return rooms;
}

}  // namespace Sentry
