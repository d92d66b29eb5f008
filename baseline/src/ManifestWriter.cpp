// Writes manifest files. It must not decide what is in them (ManifestBuilder does).
#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/WriteAll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ManifestFile.h"
#include "baseline/Manifest.h"

namespace Baseline {

namespace {

constexpr std::size_t kAlignment = 8;

void PutString(std::string& bytes, std::string_view text) {
    const auto length = static_cast<std::uint32_t>(text.size());
    bytes.append(reinterpret_cast<const char*>(&length), sizeof(length));
    bytes.append(text);
}

void PutNumber(std::string& bytes, std::int64_t number) {
    PutString(bytes, {reinterpret_cast<const char*>(&number), sizeof(number)});
}

std::string InfoBytes(const ManifestInfo& info) {
    std::string bytes;
    PutString(bytes, info.real_path);
    PutString(bytes, info.backup_path);
    PutNumber(bytes, info.is_file ? 1 : 0);
    PutNumber(bytes, info.created);
    PutString(bytes, info.approval);
    PutNumber(bytes, info.attribute_kinds);
    PutNumber(bytes, static_cast<std::int64_t>(info.exclusions.size()));
    for (const std::string& pattern : info.exclusions) PutString(bytes, pattern);
    bytes.resize((bytes.size() + kAlignment - 1) / kAlignment * kAlignment);
    return bytes;
}

bool WriteTo(const SDK::FileDescriptor& file, const void* data, std::size_t size) {
    return SDK::WriteAll(file.Get(), data, size) == 0;
}

}  // namespace

struct ManifestWriter::Data {
    std::vector<Record> records;
    std::string names;
};

ManifestWriter::ManifestWriter() : data_(std::make_unique<Data>()) {}
ManifestWriter::~ManifestWriter() = default;

std::size_t ManifestWriter::Add(const ManifestEntry& entry) {
    Record record{};
    record.name_offset = data_->names.size();
    record.name_length = static_cast<std::uint32_t>(entry.path.size());
    record.mode = entry.mode;
    record.user = entry.user;
    record.group = entry.group;
    record.size = entry.size;
    record.modified = entry.modified;
    record.content = entry.content;
    record.live = entry.live;
    record.copy = entry.copy;
    data_->names.append(entry.path);
    data_->records.push_back(record);
    return data_->records.size() - 1;
}

void ManifestWriter::SetContent(std::size_t index, const Digest& content) {
    data_->records[index].content = content;
}

void ManifestWriter::SetOpen(std::size_t index) {
    data_->records[index].mode = 0;
}

std::size_t ManifestWriter::Size() const {
    return data_->records.size();
}

int ManifestWriter::Write(const ManifestInfo& info, const std::string& file) const {
    const std::string info_bytes = InfoBytes(info);
    const Header header{kMagic,
                        kVersion,
                        sizeof(Record),
                        data_->records.size(),
                        info_bytes.size(),
                        data_->names.size()};
    const SDK::FileDescriptor out(
        ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    const bool written =
        out.IsOpen() && WriteTo(out, &header, sizeof(header)) &&
        WriteTo(out, info_bytes.data(), info_bytes.size()) &&
        WriteTo(out, data_->records.data(), data_->records.size() * sizeof(Record)) &&
        WriteTo(out, data_->names.data(), data_->names.size()) && ::fsync(out.Get()) == 0;
    return written ? 0 : -1;
}

}  // namespace Baseline
