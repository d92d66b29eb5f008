#include "deploy/LinkState.h"

#include <sdk/files/PlaceTrust.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "deploy/StagedTree.h"

namespace Engine {

namespace {

std::string TextOf(const std::string& link) {
    std::error_code error;
    return std::filesystem::read_symlink(link, error).string();
}

}  // namespace

LinkState LinkState::Of(const std::string& link) {
    return link.empty() ? LinkState{} : LinkState{link, TextOf(link)};
}

std::string LinkState::PutBack() const {
    if (link.empty() || text.empty() || TextOf(link) == text) return "";
    const std::string failed = "The release link " + link + " was not put back: ";
    const std::string why = SDK::PlaceTrust::WhyReplaceable(link);
    if (!why.empty()) return failed + why + ".";
    const std::string beside = link + ".morvane-" + StagedTree::NewId();
    if (::symlink(text.c_str(), beside.c_str()) == 0 &&
        ::rename(beside.c_str(), link.c_str()) == 0) {
        return "";
    }
    const int error = errno;
    ::unlink(beside.c_str());
    return failed + std::strerror(error) + ".";
}

}  // namespace Engine
