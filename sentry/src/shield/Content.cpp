#include "shield/Content.h"

#include <sdk/files/Sha256.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace Sentry {

namespace {

constexpr std::size_t kChunk = 131'072;

/// As pread(2), again after a signal.
ssize_t ReadAt(int file, void* buffer, std::size_t size, std::uint64_t offset) {
    ssize_t some = -1;
    do {
        some = ::pread(file, buffer, size, static_cast<off_t>(offset));
    } while (some < 0 && errno == EINTR);
    return some;
}

}  // namespace

bool ReadWhole(int file, std::uint64_t size, std::string& content) {
    content.resize(size + 1);
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t some = ReadAt(file, &content[done], content.size() - done, done);
        if (some < 0) return false;
        if (some == 0) break;
        done += static_cast<std::size_t>(some);
    }
    content.resize(done);
    return true;
}

bool IsContent(const Baseline::ManifestEntry& approved, const std::string& content) {
    SDK::Sha256 hash;
    SDK::Sha256::Digest digest{};
    hash.Update(content.data(), content.size());
    return content.size() == approved.size && hash.Finish(digest) && digest == approved.content;
}

bool HasContent(int file, const Baseline::ManifestEntry& approved) {
    thread_local std::array<char, kChunk> buffer;
    thread_local SDK::Sha256 hash;
    hash.Restart();
    std::uint64_t done = 0;
    while (done <= approved.size) {
        const ssize_t some = ReadAt(file, buffer.data(), buffer.size(), done);
        if (some < 0) return false;
        if (some == 0) break;
        hash.Update(buffer.data(), static_cast<std::size_t>(some));
        done += static_cast<std::uint64_t>(some);
    }
    SDK::Sha256::Digest digest{};
    return done == approved.size && hash.Finish(digest) && digest == approved.content;
}

}  // namespace Sentry
