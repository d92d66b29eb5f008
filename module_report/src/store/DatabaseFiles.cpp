#include "store/DatabaseFiles.h"

#include <sdk/text/StrUtils.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <vector>

namespace Engine {
namespace {

constexpr std::size_t kKeptAside = 3;

void RemoveAllButNewest(const std::string& prefix) {
    namespace fs = std::filesystem;
    std::error_code error;
    std::vector<std::string> found;
    for (const fs::directory_entry& entry :
         fs::directory_iterator(fs::path(prefix).parent_path(), error)) {
        const std::string name = entry.path().string();
        if (SDK::StrUtils::BeginsWith(name, prefix) && name.find("-wal") == std::string::npos) {
            found.push_back(name);
        }
    }
    std::sort(found.rbegin(), found.rend());
    for (std::size_t i = kKeptAside; i < found.size(); ++i) {
        fs::remove(found[i], error);
        fs::remove(found[i] + "-wal", error);
    }
}

}  // namespace

FileIdentity IdentifyFile(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return {};
    return {status.st_dev, status.st_ino};
}

std::string SetDatabaseAside(const std::string& path, std::int64_t epoch_ms) {
    const std::string prefix = path + ".corrupt-";
    std::string aside = prefix + std::to_string(epoch_ms);
    if (std::rename(path.c_str(), aside.c_str()) != 0) return "";
    std::rename((path + "-wal").c_str(), (aside + "-wal").c_str());
    ::unlink((path + "-shm").c_str());
    RemoveAllButNewest(prefix);
    return aside;
}

}  // namespace Engine
