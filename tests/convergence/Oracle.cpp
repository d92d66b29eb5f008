#include "Oracle.h"

#include <sdk/text/Utf8.h>
#include <sys/stat.h>

#include <algorithm>
#include <sstream>

namespace test {

namespace {

using Demo::ObjectState;

std::string Describe(const ObjectState& state) {
    static const char* const kinds[] = {"file", "directory", "link", "other"};
    std::ostringstream text;
    text << kinds[static_cast<int>(state.kind)] << " " << std::oct << state.mode << std::dec << " "
         << state.uid << ":" << state.gid << " size " << state.size << " time " << state.mtime
         << " " << state.content;
    return text.str();
}

std::string Describe(const Demo::TreeState& tree, const std::string& path) {
    const auto found = tree.find(path);
    return found == tree.end() ? "nothing" : Describe(found->second);
}

bool IsBelow(const std::string& path, const std::string& top) {
    return path.compare(0, top.size(), top) == 0 &&
           (path.size() == top.size() || path[top.size()] == '/');
}

}  // namespace

Oracle::Oracle(const TestSite& site)
    : site_(site),
      copy_(Demo::TakeState(site.Copy())),
      link_target_(Demo::TakeState(site.LinkTarget())) {
    for (const auto& [path, state] : copy_) {
        excluded_count_ += IsExcluded(path) ? 1U : 0U;
        struct stat info {};
        if (state.kind == ObjectState::Kind::kDirectory ||
            ::lstat((site_.Copy() + path).c_str(), &info) != 0 || info.st_nlink < 2) {
            continue;
        }
        inode_of_[path] = info.st_ino;
        names_of_[info.st_ino].push_back(path);
    }
}

bool Oracle::IsExcluded(const std::string& path) {
    return IsBelow(path, std::string("/") + TestSite::kExcluded) ||
           (path + "/").find("./") != std::string::npos;
}

Differences Oracle::FindDifferences() const {
    const Demo::TreeState now = Demo::TakeState(site_.Site());
    Differences found;
    const auto compare = [&](const std::string& path) {
        const std::string actual = Describe(now, path);
        const std::string expected = Describe(copy_, path);
        if (actual != expected && !IsExcluded(path)) {
            found.emplace(path, actual + " instead of " + expected);
        }
    };
    for (const auto& [path, state] : copy_) compare(path);
    for (const auto& [path, state] : now) compare(path);
    return found;
}

std::string Oracle::ChangeOutsideSite() const {
    const std::string change = Demo::FindDifference(link_target_, site_.LinkTarget());
    return change.empty() ? Demo::FindDifference(copy_, site_.Copy()) : change;
}

std::vector<std::string> Oracle::WithoutAlarm(const Differences& differing,
                                              const std::set<std::string>& alarms) const {
    const auto has_alarm = [&](const std::string& path) {
        std::string parent = SDK::ToValidUtf8(site_.Site() + path);
        while (parent.size() >= site_.Site().size() && alarms.count(parent) == 0) {
            parent.resize(parent.rfind('/'));
        }
        return parent.size() >= site_.Site().size();
    };
    std::vector<std::string> missing;
    for (const auto& [path, words] : differing) {
        const auto object = inode_of_.find(path);
        const std::vector<std::string> names =
            object == inode_of_.end() ? std::vector{path} : names_of_.at(object->second);
        if (std::none_of(names.begin(), names.end(), has_alarm)) missing.push_back(path);
    }
    return missing;
}

}  // namespace test
