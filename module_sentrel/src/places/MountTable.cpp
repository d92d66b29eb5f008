// Owns the mounts that are normal and the differences from them. It must not decide what a
// difference means (RuleAnchors and the inotify task do), and never mounts or unmounts. Any thread,
// under a lock.
#include "places/MountTable.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

#include "base/PathText.h"

namespace Engine {

namespace {

constexpr const char* kMountInfo = "/proc/self/mountinfo";

std::string ReadAll(int file) {
    std::string text;
    std::array<char, 16384> part{};
    ::lseek(file, 0, SEEK_SET);
    for (ssize_t size = 0; (size = ::read(file, part.data(), part.size())) > 0;) {
        text.append(part.data(), static_cast<std::size_t>(size));
    }
    return text;
}

bool IsOctal(const std::string& text, std::size_t at) {
    return at + 3 <= text.size() && std::all_of(text.begin() + static_cast<std::ptrdiff_t>(at),
                                                text.begin() + static_cast<std::ptrdiff_t>(at + 3),
                                                [](char c) { return c >= '0' && c <= '7'; });
}

/// The kernel writes blanks, tabs, line ends and backslashes as "\040".
std::string Unescaped(const std::string& text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && IsOctal(text, at + 1)) {
            plain += static_cast<char>(std::stoi(text.substr(at + 1, 3), nullptr, 8));
            at += 3;
        } else {
            plain += text[at];
        }
    }
    return plain;
}

}  // namespace

std::set<Mount> ParseMounts(const std::string& mountinfo) {
    std::set<Mount> mounts;
    std::istringstream lines(mountinfo);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, point, word, type;
        fields >> id >> parent >> device >> root >> point;
        while (fields >> word && word != "-") {
        }
        if (fields >> type) {
            mounts.insert({Unescaped(point), device + " " + Unescaped(root), type});
        }
    }
    return mounts;
}

MountTable::MountTable() : file_(OpenEvents()) {}

SDK::FileDescriptor MountTable::OpenEvents() {
    return SDK::FileDescriptor(::open(kMountInfo, O_RDONLY | O_CLOEXEC));
}

void MountTable::Remember() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!file_.IsOpen()) return;
    normal_ = ParseMounts(ReadAll(file_.Get()));
    is_remembered_ = !normal_.empty();
    differences_.clear();
    differs_ = false;
}

bool MountTable::Differs() {
    const std::lock_guard<std::mutex> lock(mutex_);
    pollfd change{file_.Get(), POLLPRI, 0};
    if (is_remembered_ && ::poll(&change, 1, 0) > 0) Compare();
    return differs_;
}

void MountTable::Compare() {
    const std::set<Mount> present = ParseMounts(ReadAll(file_.Get()));
    if (present.empty()) return;
    differences_.clear();
    for (const Mount& mount : normal_) {
        if (present.count(mount) > 0) continue;
        differences_.push_back(
            {mount.point, mount.type + " is no longer mounted at " + mount.point});
    }
    for (const Mount& mount : present) {
        if (normal_.count(mount) > 0) continue;
        differences_.push_back({mount.point, mount.type + " is mounted at " + mount.point});
    }
    differs_ = !differences_.empty();
}

MountTable::Difference MountTable::Hiding(const std::string& path) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto hides = [&](const Difference& one) { return IsAtOrBelow(path, one.point); };
    const auto last = std::find_if(differences_.rbegin(), differences_.rend(), hides);
    return last == differences_.rend() ? Difference() : *last;
}

std::vector<MountTable::Difference> MountTable::Below(const std::string& path) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Difference> below;
    for (const Difference& one : differences_) {
        if (one.point != path && IsAtOrBelow(one.point, path)) below.push_back(one);
    }
    return below;
}

std::vector<std::string> MountTable::NormalBelow(const std::string& path) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> points;
    for (const Mount& mount : normal_) {
        if (mount.point != path && IsAtOrBelow(mount.point, path)) points.push_back(mount.point);
    }
    return points;
}

}  // namespace Engine
