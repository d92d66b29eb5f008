// Reads manifest files. It must not compare anything with them (TreeVerifier does) nor know which
// one is in force (BaselineStore does).
#include "baseline/Manifest.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ManifestFile.h"

namespace Baseline {

namespace {

/// Takes a string off the front of `bytes`; false when it is cut short.
bool TakeString(std::string_view& bytes, std::string& text) {
    std::uint32_t length = 0;
    if (bytes.size() < sizeof(length)) return false;
    std::memcpy(&length, bytes.data(), sizeof(length));
    bytes.remove_prefix(sizeof(length));
    if (bytes.size() < length) return false;
    text.assign(bytes.substr(0, length));
    bytes.remove_prefix(length);
    return true;
}

bool TakeNumber(std::string_view& bytes, std::int64_t& number) {
    std::string text;
    if (!TakeString(bytes, text) || text.size() != sizeof(number)) return false;
    std::memcpy(&number, text.data(), sizeof(number));
    return true;
}

bool ReadInfo(std::string_view bytes, ManifestInfo& info) {
    std::int64_t is_file = 0;
    std::int64_t exclusions = 0;
    if (!TakeString(bytes, info.real_path) || !TakeString(bytes, info.backup_path) ||
        !TakeNumber(bytes, is_file) || !TakeNumber(bytes, info.created) ||
        !TakeString(bytes, info.approval) || !TakeNumber(bytes, info.attribute_kinds) ||
        !TakeNumber(bytes, exclusions)) {
        return false;
    }
    info.is_file = is_file != 0;
    for (; exclusions > 0; --exclusions) {
        if (!TakeString(bytes, info.exclusions.emplace_back())) return false;
    }
    return true;
}

}  // namespace

int ComparePaths(std::string_view a, std::string_view b) {
    const std::size_t shared = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < shared; ++i) {
        if (a[i] == b[i]) continue;
        const int left = a[i] == '/' ? 0 : static_cast<unsigned char>(a[i]);
        const int right = b[i] == '/' ? 0 : static_cast<unsigned char>(b[i]);
        return left - right;
    }
    if (a.size() == b.size()) return 0;
    return a.size() < b.size() ? -1 : 1;
}

bool IsWithin(std::string_view path, std::string_view directory) {
    return directory.empty() ||
           (path.substr(0, directory.size()) == directory &&
            (path.size() == directory.size() || path[directory.size()] == '/'));
}

std::shared_ptr<const Manifest> Manifest::Open(const std::string& file, std::string& error) {
    const SDK::FileDescriptor opened(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (!opened.IsOpen() || ::fstat(opened.Get(), &info) != 0) {
        error = "cannot open " + file + ": " + std::strerror(errno);
        return nullptr;
    }
    const auto size = static_cast<std::size_t>(info.st_size);
    void* const start = size < sizeof(Header)
                            ? MAP_FAILED
                            : ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, opened.Get(), 0);
    if (start == MAP_FAILED) {
        error = file + " is no manifest";
        return nullptr;
    }
    std::shared_ptr<Manifest> manifest(new Manifest({static_cast<const char*>(start), size}));
    if (manifest->ReadHeader()) return manifest;
    error = file + " is damaged";
    return nullptr;
}

Manifest::~Manifest() {
    ::munmap(const_cast<char*>(bytes_.data()), bytes_.size());
}

bool Manifest::ReadHeader() {
    Header header{};
    std::memcpy(&header, bytes_.data(), sizeof(header));
    if (header.magic != kMagic || header.version != kVersion ||
        header.record_size != sizeof(Record)) {
        return false;
    }
    const std::size_t rest = bytes_.size() - sizeof(Header);
    if (header.info_size > rest || header.names_size > rest ||
        header.count > rest / sizeof(Record) ||
        header.info_size + header.count * sizeof(Record) + header.names_size != rest) {
        return false;
    }
    count_ = header.count;
    records_ = bytes_.substr(sizeof(Header) + header.info_size, count_ * sizeof(Record));
    names_ = bytes_.substr(bytes_.size() - header.names_size);
    return ReadInfo(bytes_.substr(sizeof(Header), header.info_size), info_);
}

ManifestEntry Manifest::At(std::size_t index) const {
    Record record{};
    std::memcpy(&record, records_.data() + index * sizeof(Record), sizeof(record));
    ManifestEntry entry;
    if (record.name_offset <= names_.size()) {
        entry.path = names_.substr(record.name_offset, record.name_length);
    }
    entry.mode = record.mode;
    entry.user = record.user;
    entry.group = record.group;
    entry.size = record.size;
    entry.modified = record.modified;
    entry.content = record.content;
    entry.live = record.live;
    entry.copy = record.copy;
    return entry;
}

std::size_t Manifest::LowerBound(std::string_view path) const {
    std::size_t begin = 0;
    std::size_t end = count_;
    while (begin < end) {
        const std::size_t middle = begin + (end - begin) / 2;
        if (ComparePaths(At(middle).path, path) < 0) {
            begin = middle + 1;
        } else {
            end = middle;
        }
    }
    return begin;
}

std::optional<ManifestEntry> Manifest::Find(std::string_view path) const {
    const std::size_t index = LowerBound(path);
    if (index == count_) return std::nullopt;
    const ManifestEntry entry = At(index);
    if (entry.path != path) return std::nullopt;
    return entry;
}

}  // namespace Baseline
