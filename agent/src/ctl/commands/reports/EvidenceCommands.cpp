#include "ctl/commands/reports/EvidenceCommands.h"

#include <evidence/EvidenceStore.h>
#include <fcntl.h>
#include <json/value.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/WriteAll.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>
#include <sdk/time/TimeUtils.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using Evidence::EvidenceStore;
using Evidence::Record;

namespace {

constexpr std::size_t kShownId = 16;
constexpr std::size_t kMostShown = 64UL * 1024;
constexpr std::int64_t kDay = 24L * 3600;

std::string Directory() {
    return EvidenceStore::Directory(SDK::PathUtils::GetInstallationPath());
}

/// False after a sentence: only root may look.
bool IsReadable() {
    if (::access(Directory().c_str(), R_OK | X_OK) == 0 || errno == ENOENT) return true;
    std::cerr << "The evidence cannot be read: " << std::strerror(errno) << "." << std::endl;
    return false;
}

bool IsAt(const Record& record, const std::string& path) {
    return path.empty() || record.path == path ||
           SDK::StrUtils::BeginsWith(record.path, path == "/" ? path : path + "/");
}

Json::Value ToJson(const Record& record) {
    Json::Value object(Json::objectValue);
    object["id"] = record.id;
    object["path"] = record.path;
    object["time"] = static_cast<Json::Int64>(record.time);
    object["mode"] = SDK::FileUtils::StModeToStr(record.mode);
    object["user"] = record.user;
    object["group"] = record.group;
    object["modified"] = static_cast<Json::Int64>(record.modified);
    object["size"] = static_cast<Json::UInt64>(record.size);
    object["kept"] = static_cast<Json::UInt64>(record.kept);
    return object;
}

std::string ToRow(const Record& record, long long now_ms) {
    const std::string part = record.kept < record.size ? " (its beginning)" : "";
    return SDK::StrUtils::Format(
        "%-19s  %s  %10s bytes%s  %s\n", ShortTime(record.time * 1000, now_ms).c_str(),
        record.id.substr(0, kShownId).c_str(), std::to_string(record.kept).c_str(), part.c_str(),
        Printable(record.path).c_str());
}

/// The content with that id; not open after a sentence.
SDK::FileDescriptor OpenOne(const std::string& id) {
    const EvidenceStore store(Directory());
    const std::vector<std::string> found =
        IsReadable() ? store.Find(id) : std::vector<std::string>{};
    if (found.size() == 1) {
        SDK::FileDescriptor content = store.Open(found.front());
        if (!content.IsOpen()) {
            std::cerr << "The content cannot be read: " << std::strerror(errno) << "." << std::endl;
        }
        return content;
    }
    std::cerr << (found.empty() ? "There is no evidence with the id "
                                : "There are several contents whose id begins with ")
              << Printable(id) << "." << std::endl;
    return {};
}

/// Hands the content to `take` in pieces until that returns false. 0, or the errno of a failure.
template <typename Take>
int ReadAll(int content, Take take) {
    std::array<char, 65536> piece{};
    for (;;) {
        const ssize_t size = ::read(content, piece.data(), piece.size());
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) return errno;
        if (size == 0 || !take(piece.data(), static_cast<std::size_t>(size))) return 0;
    }
}

void PrintLines(const std::string& text) {
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        std::cout << Printable(text.substr(start, end - start), true) << "\n";
        start = end + 1;
    }
}

}  // namespace

int ListEvidence(const EvidenceListOptions& options) {
    if (!IsReadable()) return kExitFailed;
    std::vector<Record> records = EvidenceStore(Directory()).List();
    std::string path = options.path;
    if (!path.empty()) {
        path = SDK::PathUtils::WithoutTrailingSlash(
            std::filesystem::absolute(path).lexically_normal());
    }
    std::reverse(records.begin(), records.end());
    const long long now_ms = SDK::TimeUtils::GetCurrentTimestampS() * 1000;
    std::size_t count = 0;
    for (const Record& record : records) {
        if (!IsAt(record, path)) continue;
        if (options.limit > 0 && count == options.limit) {
            std::cerr << "There is more; --limit 0 lists all." << std::endl;
            break;
        }
        ++count;
        std::cout << (options.json ? SDK::JsonUtils::JsonToString(ToJson(record)) + "\n"
                                   : ToRow(record, now_ms));
    }
    if (count == 0 && !options.json) std::cout << "Nothing has been kept.\n";
    return kExitOk;
}

int ShowEvidence(const std::string& id) {
    const SDK::FileDescriptor content = OpenOne(id);
    if (!content.IsOpen()) return kExitFailed;
    std::string text;
    const int error = ReadAll(content.Get(), [&](const char* data, std::size_t size) {
        text.append(data, size);
        return text.size() <= kMostShown;
    });
    const bool is_cut = text.size() > kMostShown;
    if (is_cut) text.resize(kMostShown);
    PrintLines(text);
    if (is_cut) std::cerr << "There is more; export copies all of it." << std::endl;
    if (error == 0) return kExitOk;
    std::cerr << "The content cannot be read: " << std::strerror(error) << "." << std::endl;
    return kExitFailed;
}

int ExportEvidence(const std::string& id, const std::string& file) {
    const SDK::FileDescriptor content = OpenOne(id);
    if (!content.IsOpen()) return kExitFailed;
    SDK::FileDescriptor target(
        ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    int error = target.IsOpen() ? 0 : errno;
    const bool is_ours = target.IsOpen();
    if (is_ours) {
        int write_error = 0;
        error = ReadAll(content.Get(), [&](const char* data, std::size_t size) {
            write_error = SDK::WriteAll(target.Get(), data, size) == 0 ? 0 : errno;
            return write_error == 0;
        });
        if (error == 0) error = write_error;
    }
    if (error == 0) return kExitOk;
    if (is_ours) ::unlink(file.c_str());
    std::cerr << Printable(file) << " cannot be written: " << std::strerror(error) << "."
              << std::endl;
    return kExitFailed;
}

int PurgeEvidence(int older_than_days) {
    if (!IsReadable()) return kExitFailed;
    if (::access(Directory().c_str(), F_OK) != 0) {
        std::cout << "Nothing has been kept.\n";
        return kExitOk;
    }
    const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
    const auto removed = EvidenceStore(Directory()).Remove([&](const Record& record) {
        return older_than_days < 0 || record.time <= now - older_than_days * kDay;
    });
    if (!removed) {
        std::cerr << "The evidence cannot be changed: " << std::strerror(errno) << "." << std::endl;
        return kExitFailed;
    }
    std::cout << *removed << " contents were removed.\n";
    return kExitOk;
}

}  // namespace Ctl
