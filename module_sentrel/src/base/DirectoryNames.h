#pragma once

#include <string>
#include <vector>

namespace Engine {

/// The names in a held directory but "." and "..", in no order; as many as can be read. Leaves the
/// descriptor as it is. Stateless; any thread.
std::vector<std::string> NamesIn(int directory);

}  // namespace Engine
