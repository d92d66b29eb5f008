#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Engine::FileNotify {

/// One kernel event. `name` points into the parsed bytes.
struct InotifyRecord {
    int wd = -1;
    std::uint32_t mask = 0;
    std::uint32_t cookie = 0;
    std::string_view name;
};

/// Appends the records in `bytes`, the result of one read, to `records`. Strips the padding of the
/// names. Returns false when the bytes end within a record; the complete ones are appended.
/// Thread-safe.
bool ParseRecords(std::string_view bytes, std::vector<InotifyRecord>& records);

}  // namespace Engine::FileNotify
