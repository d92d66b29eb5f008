#pragma once

#include <array>
#include <cstdint>

#include "baseline/ManifestEntry.h"

namespace Baseline {

// The layout of a manifest file: Header, the info's strings (each a 32-bit length and its bytes),
// Records, names. Numbers are in the byte order of the host, which alone reads the file.

struct Header {
    std::array<char, 8> magic;
    std::uint32_t version;
    std::uint32_t record_size;
    std::uint64_t count;
    std::uint64_t info_size;  ///< bytes, a multiple of 8
    std::uint64_t names_size;
};

struct Record {
    std::uint64_t name_offset;
    std::uint32_t name_length;
    std::uint32_t mode;
    std::uint32_t user;
    std::uint32_t group;
    std::uint64_t size;
    std::int64_t modified;
    Digest content;
    Identity live;
    Identity copy;
};

constexpr std::array<char, 8> kMagic = {'B', 'A', 'S', 'E', 'L', 'I', 'N', 'E'};
constexpr std::uint32_t kVersion = 1;

}  // namespace Baseline
