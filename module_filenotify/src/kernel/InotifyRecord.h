#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Engine::FileNotify {

/// One event as the kernel wrote it. `name` points into the bytes that were parsed.
struct InotifyRecord {
    int wd = -1;
    std::uint32_t mask = 0;
    std::uint32_t cookie = 0;
    std::string_view name;
};

/// Appends the records that lie in `bytes`, one read's worth, to `records`. Names lose their
/// padding. False when the bytes end within a record; the whole ones before it are kept.
bool ParseRecords(std::string_view bytes, std::vector<InotifyRecord>& records);

}  // namespace Engine::FileNotify
