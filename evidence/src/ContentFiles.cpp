// Owns the pack that contents are appended to. It must not know records (EvidenceStore does).
#include "ContentFiles.h"

#include <fcntl.h>
#include <sdk/files/WriteAll.h>
#include <sdk/text/StrUtils.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Evidence {

namespace {

constexpr std::size_t kIdLength = 64;
constexpr std::uint64_t kFullPack = 4ULL * 1024 * 1024;
constexpr const char* kTemporary = ".new";
constexpr const char* kPackPrefix = "pack-";

unsigned char DigitOf(char hex) {
    return static_cast<unsigned char>(hex <= '9' ? hex - '0' : hex - 'a' + 10);
}

}  // namespace

bool IsId(const std::string& id) {
    return id.size() == kIdLength && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

SDK::Sha256::Digest DigestOf(const std::string& id) {
    SDK::Sha256::Digest digest{};
    for (std::size_t i = 0; i < digest.size(); ++i) {
        digest[i] = static_cast<unsigned char>(DigitOf(id[2 * i]) * 16 + DigitOf(id[2 * i + 1]));
    }
    return digest;
}

void ContentFiles::BeginPack(std::uint32_t next) {
    pack_.Reset();
    number_ = next;
}

bool ContentFiles::OpenPack(int directory) {
    if (pack_.IsOpen() && size_ < kFullPack) return true;
    if (pack_.IsOpen()) ++number_;
    size_ = 0;
    do {
        pack_.Reset(::openat(directory, PackName(number_).c_str(),
                             O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                             0600));
    } while (!pack_.IsOpen() && errno == EEXIST && ++number_ > 0);
    return pack_.IsOpen();
}

Place ContentFiles::Append(int directory, const std::string& contents) {
    if (!OpenPack(directory)) return {};
    if (SDK::WriteAll(pack_.Get(), contents.data(), contents.size()) != 0) {
        const int error = errno;
        if (::ftruncate(pack_.Get(), static_cast<off_t>(size_)) != 0) BeginPack(number_ + 1);
        errno = error;
        return {};
    }
    const Place place{number_, static_cast<std::uint32_t>(size_)};
    size_ += contents.size();
    return place;
}

bool ContentFiles::Store(int directory, const std::string& id, const std::string& content) {
    const SDK::FileDescriptor file(::openat(
        directory, kTemporary, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file.IsOpen() && SDK::WriteAll(file.Get(), content.data(), content.size()) == 0 &&
        ::renameat(directory, kTemporary, directory, id.c_str()) == 0) {
        return true;
    }
    const int error = errno;
    ::unlinkat(directory, kTemporary, 0);
    errno = error;
    return false;
}

bool ContentFiles::Read(int directory, const Place& place, std::uint64_t size,
                        std::string& content) {
    const SDK::FileDescriptor pack(
        ::openat(directory, PackName(place.pack).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!pack.IsOpen() || size > kMostPacked) return false;
    content.resize(size);
    return ::pread(pack.Get(), content.data(), size, place.at) == static_cast<ssize_t>(size);
}

SDK::FileDescriptor ContentFiles::OpenPacked(int directory, const std::string& id,
                                             const Place& place, std::uint64_t size) {
    std::string content;
    SDK::Sha256 sha256;
    const bool is_read = Read(directory, place, size, content);
    sha256.Update(content.data(), content.size());
    // A power failure may have left zeros.
    if (!is_read || sha256.Hex() != id) {
        errno = ENOENT;
        return {};
    }
    SDK::FileDescriptor copy(::memfd_create("evidence", MFD_CLOEXEC));
    if (!copy.IsOpen() || SDK::WriteAll(copy.Get(), content.data(), content.size()) != 0 ||
        ::lseek(copy.Get(), 0, SEEK_SET) != 0) {
        return {};
    }
    return copy;
}

std::uint32_t ContentFiles::PackNumber(const std::string& name) {
    if (!SDK::StrUtils::BeginsWith(name, kPackPrefix)) return 0;
    const auto number = static_cast<std::uint32_t>(
        std::strtoul(name.c_str() + std::string(kPackPrefix).size(), nullptr, 10));
    return PackName(number) == name ? number : 0;
}

bool PresentContents::Has(const std::string& id, const Place& place, std::uint64_t size) {
    const std::string name = place.pack == 0 ? id : ContentFiles::PackName(place.pack);
    const auto [known, is_new] = sizes_.try_emplace(name, -1);
    struct stat info {};
    if (is_new && ::fstatat(directory_, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
        known->second = info.st_size;
    }
    return known->second >= static_cast<std::int64_t>(place.at + size);
}

}  // namespace Evidence
