#include <Evidence.h>
#include <ProtectedWay.h>
#include <fcntl.h>
#include <unistd.h>

namespace Engine {

Evidence::Evidence(const SentrelDirRule& rule, const std::string& path) {
    if (ProtectedWay(rule, path).IsBarred()) return;
    held_.Reset(::open(WithoutTrailingSlash(path).c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

std::string Evidence::Path() const {
    if (!held_.IsOpen()) return "";
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(held_.Get());
}

}  // namespace Engine
