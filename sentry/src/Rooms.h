#pragma once

#include <memory>
#include <vector>

#include "base/Room.h"
#include "base/SharedState.h"

namespace Sentry {

/// The services of the sentry. Borrows `state`.
std::vector<std::unique_ptr<Room>> MakeRooms(SharedState& state);

}  // namespace Sentry
