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
      bystander_(Demo::TakeState(site.Bystander())) {
    for (const auto& [path, state] : copy_) {
        left_out_ += IsLeftOut(path) ? 1U : 0U;
        struct stat info {};
        if (state.kind == ObjectState::Kind::kDirectory ||
            ::lstat((site_.Copy() + path).c_str(), &info) != 0 || info.st_nlink < 2) {
            continue;
        }
        object_of_[path] = info.st_ino;
        names_of_[info.st_ino].push_back(path);
    }
}

bool Oracle::IsLeftOut(const std::string& path) const {
    if (path.empty()) return false;
    if (IsBelow(path, std::string("/") + TestSite::kExcluded)) return true;
    // With a directory of such a name comes what it holds.
    return (path + "/").find("./") != std::string::npos;
}

Differences Oracle::Find(const Demo::TreeState& now) const {
    Differences found;
    const auto look = [&](const std::string& path) {
        const std::string is = Describe(now, path);
        const std::string was = Describe(copy_, path);
        if (is != was && !IsLeftOut(path)) found.emplace(path, is + " for " + was);
    };
    for (const auto& [path, state] : copy_) look(path);
    for (const auto& [path, state] : now) look(path);
    return found;
}

std::string Oracle::ChangeBeside() const {
    const std::string change = Demo::FindDifference(bystander_, site_.Bystander());
    return change.empty() ? Demo::FindDifference(copy_, site_.Copy()) : change;
}

std::vector<std::string> Oracle::WithoutAlarm(const Differences& differing,
                                              const std::set<std::string>& alarms) const {
    const auto is_told = [&](const std::string& path) {
        std::string way = SDK::ToValidUtf8(site_.Site() + path);
        while (way.size() >= site_.Site().size() && alarms.count(way) == 0) {
            way.resize(way.rfind('/'));
        }
        return way.size() >= site_.Site().size();
    };
    std::vector<std::string> missing;
    for (const auto& [path, words] : differing) {
        const auto object = object_of_.find(path);
        const std::vector<std::string> names =
            object == object_of_.end() ? std::vector{path} : names_of_.at(object->second);
        if (std::none_of(names.begin(), names.end(), is_told)) missing.push_back(path);
    }
    return missing;
}

}  // namespace test
