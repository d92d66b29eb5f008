// Owns the installation path set by SetInstallationPath. Thread-safe.
#include "sdk/files/PathUtils.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <memory>
#include <mutex>

namespace SDK {

namespace {

std::mutex path_mutex;
std::string set_path;  // empty: found by FindInstallationPath

const char anchor = 0;  // lies in libsdk.so

std::string FindInstallationPath() {
    Dl_info info{};
    if (::dladdr(&anchor, &info) == 0 || info.dli_fname == nullptr) return "/";
    const std::unique_ptr<char, decltype(&::free)> library(::realpath(info.dli_fname, nullptr),
                                                           &::free);
    if (library == nullptr) return "/";
    const std::string prefix = PathUtils::GetDirFromPath(PathUtils::GetDirFromPath(library.get()));
    return PathUtils::WithTrailingSlash(prefix);
}

}  // namespace

void PathUtils::GetInstallationPath(std::string& path) {
    path = GetInstallationPath();
}

std::string PathUtils::GetInstallationPath() {
    static const std::string found = FindInstallationPath();
    const std::lock_guard<std::mutex> lock(path_mutex);
    return set_path.empty() ? found : set_path;
}

void PathUtils::SetInstallationPath(const std::string& path) {
    const std::lock_guard<std::mutex> lock(path_mutex);
    set_path = path.empty() ? path : WithTrailingSlash(path);
}

std::string PathUtils::GetDirFromPath(const std::string& path) {
    if (path == "/") return path;
    const std::size_t end = path.empty() || path.back() != '/' ? path.size() : path.size() - 1;
    const std::size_t slash = path.substr(0, end).rfind('/');
    if (slash == std::string::npos) return {};
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string PathUtils::WithTrailingSlash(std::string path) {
    if (path.empty() || path.back() != '/') path += '/';
    return path;
}

std::string PathUtils::WithoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string PathUtils::BelowInstallation(const std::string& path) {
    return !path.empty() && path.front() == '/' ? path : GetInstallationPath() + path;
}

}  // namespace SDK
