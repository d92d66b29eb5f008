#include "OddTree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "sdk/commands/ExecuteCmdUtils.h"

namespace test {

namespace {

namespace fs = std::filesystem;

constexpr const char* kRsync = "/usr/bin/rsync";
constexpr time_t kEpoch = 1'500'000'000;  // a past time that no restore sets by chance

std::string Quoted(const std::string& text) {
    constexpr std::size_t kShown = 300;
    std::string out;
    for (const char c : text.substr(0, kShown)) {
        const int code = static_cast<unsigned char>(c);
        out += c > ' ' && c < 127 ? std::string(1, c) : "\\" + std::to_string(code);
    }
    if (text.size() <= kShown) return out;
    return out + "...#" + std::to_string(std::hash<std::string>{}(text));
}

std::string ContentOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string AttributesOf(const std::string& path) {
    std::array<char, 4096> names{};
    const ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
    std::map<std::string, std::string> found;
    for (ssize_t at = 0; at < size;) {
        const std::string name = names.data() + at;
        std::array<char, 4096> value{};
        const ssize_t length = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
        found[name] =
            Quoted({value.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))});
        at += static_cast<ssize_t>(name.size()) + 1;
    }
    std::string text;
    for (const auto& [name, value] : found) text += " " + name + "=" + value;
    return text;
}

std::string Describe(const std::string& path, const struct stat& info) {
    std::ostringstream out;
    out << std::oct << info.st_mode << std::dec << " " << info.st_uid << ":" << info.st_gid << " "
        << info.st_mtim.tv_sec << "." << info.st_mtim.tv_nsec << AttributesOf(path);
    if (S_ISREG(info.st_mode)) out << " " << info.st_size << ":" << Quoted(ContentOf(path));
    if (S_ISLNK(info.st_mode)) out << " -> " << Quoted(fs::read_symlink(path).string());
    if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) out << " device " << info.st_rdev;
    return out.str();
}

std::vector<std::string> NamesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void Note(const std::string& path, const std::string& below, std::map<ino_t, std::string>& first,
          TreeState& state) {
    struct stat info {};
    ASSERT_EQ(::lstat(path.c_str(), &info), 0) << path;
    state[below] = Describe(path, info);
    if (!S_ISDIR(info.st_mode)) {
        if (info.st_nlink > 1) {
            const std::string& name = first.emplace(info.st_ino, below).first->second;
            if (name != below) state[below] += " = " + name;
        }
        return;
    }
    for (const std::string& name : NamesIn(path)) {
        Note(path + "/" + name, below.empty() ? name : below + "/" + name, first, state);
    }
}

/// All paths below the root, a directory before what it holds.
std::vector<std::string> PathsBelow(const std::string& root) {
    std::vector<std::string> paths;
    for (const auto& [below, description] : StateOf(root)) {
        if (!below.empty()) paths.push_back(root + "/" + below);
    }
    return paths;
}

void Remove(const std::string& path) {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

/// The exit code; a negative one when it did not run to its end.
int Run(const std::string& program, const std::vector<std::string>& words) {
    constexpr int kDeadlineMs = 60'000;
    int code = -1;
    std::string output;
    const int result =
        SDK::ExecuteCmdUtils::ExecuteCmd(program, words, kDeadlineMs, code, output, 4096);
    EXPECT_EQ(result, 0) << program << ": " << output;
    return code;
}

}  // namespace

TreeState StateOf(const std::string& root) {
    TreeState state;
    std::map<ino_t, std::string> first;
    Note(root, "", first, state);
    return state;
}

std::string Differences(const TreeState& expected, const TreeState& found) {
    std::string text;
    for (const auto& [below, description] : expected) {
        const auto other = found.find(below);
        if (other == found.end()) {
            text += Quoted(below) + " is missing: " + description + "\n";
        } else if (other->second != description) {
            text += Quoted(below) + ":\n    expected " + description + "\n    found    " +
                    other->second + "\n";
        }
    }
    for (const auto& [below, description] : found) {
        if (expected.count(below) == 0) {
            text += Quoted(below) + " is too many: " + description + "\n";
        }
    }
    return text;
}

void SetAttribute(const std::string& path, const std::string& name, const std::string& value) {
    EXPECT_EQ(::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0), 0)
        << path << " " << name << ": " << std::strerror(errno);
}

unsigned Seeds(unsigned usual) {
    const char* wanted = std::getenv("SENTREL_TEST_SEEDS");
    return wanted == nullptr ? usual : static_cast<unsigned>(std::strtoul(wanted, nullptr, 10));
}

unsigned OddTree::Roll(unsigned limit) {
    return static_cast<unsigned>(random_() % limit);
}

std::string OddTree::Bytes(std::size_t size) {
    std::string bytes(size, 'x');
    for (std::size_t at = 0; at < size; at += 1 + size / 64) {
        bytes[at] = static_cast<char>(Roll(256));
    }
    return bytes;
}

std::string OddTree::Name() {
    static const std::vector<std::string> kOdd = {
        "page",   "two words", "-rf",   "--delete", "*",    "?",        "[a]",  "a.log",
        "b.log",  "uploads",   "cache", "#x",       "~",    "$(id)",    "`id`", ";id",
        "line\n", " ",         "\\",    "'",        "\"",   "..a",      "...",  ".hidden",
        "a:b",    "-",         "\t",    "\x01",     "\xff", "\xc3\xa4", "a,b",  "!x",
        "+ y",    "- z",       "x.",    "%s%n",     "&",    "|",        "a=b",  "@"};
    if (Roll(3) != 0) return kOdd[Roll(static_cast<unsigned>(kOdd.size()))];
    std::string name(Roll(20) == 0 ? NAME_MAX : 1 + Roll(8), 'n');
    for (char& c : name) {
        do {
            c = static_cast<char>(Roll(256));
        } while (c == '/' || c == '\0');
    }
    return name == "." || name == ".." ? "dots" : name;
}

void OddTree::SetTime(const std::string& path) {
    // At least a second apart: rsync treats times within a second as equal.
    const std::array<timespec, 2> times{
        timespec{0, UTIME_OMIT},
        timespec{kEpoch + Roll(1000) * 60, static_cast<long>(Roll(1'000'000'000))}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW), 0);
}

void OddTree::Dress(const std::string& path) {
    static const std::array<uid_t, 5> kOwners{0, 0, 33, 1000, 65534};
    static const std::array<mode_t, 12> kModes{0644, 0600,  0755,  04755, 02755, 0,
                                               0444, 06711, 01644, 0664,  02644, 0777};
    EXPECT_EQ(::lchown(path.c_str(), kOwners[Roll(5)], kOwners[Roll(5)]), 0);
    struct stat info {};
    ASSERT_EQ(::lstat(path.c_str(), &info), 0);
    if (!S_ISLNK(info.st_mode)) {
        EXPECT_EQ(::chmod(path.c_str(), kModes[Roll(12)]), 0);
    }
    if (Roll(4) == 0) SetAttribute(path, "trusted.t", Bytes(Roll(100)));
    if (S_ISREG(info.st_mode) || S_ISDIR(info.st_mode)) {
        if (Roll(4) == 0) SetAttribute(path, "user.u", Bytes(Roll(300)));
        if (Roll(8) == 0) SetAttribute(path, "user.v\xff", "");
    }
    if (S_ISREG(info.st_mode) && Roll(6) == 0) {
        // cap_net_bind_service, permitted and effective
        SetAttribute(path, "security.capability",
                     std::string("\x01\0\0\x02\0\x04\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20));
    }
    SetTime(path);
}

void OddTree::MakeFile(const std::string& path) {
    static const std::array<std::size_t, 9> kSizes{0,    1,     100,   4096,  4096,
                                                   5000, 65536, 65537, 300000};
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << Bytes(Roll(60) == 0 ? 3 * 1024 * 1024 : kSizes[Roll(9)]);
    }
    if (Roll(6) == 0) {  // a hole at the end, or one before some content
        const off_t size = 4096 * (1 + Roll(100));
        EXPECT_EQ(::truncate(path.c_str(), size), 0);
        if (Roll(2) == 0) std::ofstream(path, std::ios::binary | std::ios::app) << "end";
    }
    Dress(path);
}

void OddTree::MakeLink(const std::string& path) {
    static const std::vector<std::string> kTexts = {
        "/etc/passwd",          "page", "../..",  "dangling/../x",
        std::string(4000, 'l'), " ",    "\n\xff", "."};
    ASSERT_EQ(::symlink(kTexts[Roll(static_cast<unsigned>(kTexts.size()))].c_str(), path.c_str()),
              0);
    Dress(path);
}

void OddTree::MakeSpecial(const std::string& path) {
    static const std::array<std::pair<mode_t, dev_t>, 5> kKinds{{{S_IFIFO, 0},
                                                                 {S_IFIFO, 0},
                                                                 {S_IFSOCK, 0},
                                                                 {S_IFCHR, makedev(1, 3)},
                                                                 {S_IFBLK, makedev(7, 9)}}};
    const auto [type, device] = kKinds[Roll(5)];
    ASSERT_EQ(::mknod(path.c_str(), type | 0600, device), 0) << std::strerror(errno);
    Dress(path);
}

void OddTree::MakeAny(const std::string& path) {
    switch (Roll(6)) {
        case 0:
            return MakeLink(path);
        case 1:
            return MakeSpecial(path);
        default:
            return MakeFile(path);
    }
}

void OddTree::Fill(const std::string& directory, int depth) {
    ::mkdir(directory.c_str(), 0700);
    std::string previous;
    for (unsigned objects = 2 + Roll(6); objects > 0; --objects) {
        const std::string path = directory + "/" + Name();
        struct stat info {};
        if (::lstat(path.c_str(), &info) == 0) continue;
        if (depth > 1 && Roll(3) == 0) {
            Fill(path, depth - 1);
            continue;
        }
        if (!previous.empty() && Roll(6) == 0) {
            EXPECT_EQ(::link(previous.c_str(), path.c_str()), 0) << std::strerror(errno);
        } else {
            MakeAny(path);
        }
        previous = path;
    }
    Dress(directory);
}

void OddTree::Change(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return;
    const bool is_file = S_ISREG(info.st_mode);
    switch (Roll(8)) {
        case 0:
            return Dress(path);
        case 1:
            return SetTime(path);
        case 2:  // the same size and time, other content
            if (is_file && info.st_size > 0) {
                std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
                file.seekp(Roll(static_cast<unsigned>(info.st_size)));
                file.put('\x7f');
                file.close();
                const std::array<timespec, 2> times{info.st_atim, info.st_mtim};
                ::utimensat(AT_FDCWD, path.c_str(), times.data(), 0);
                return;
            }
            return Remove(path);
        case 3:
            if (is_file) std::ofstream(path, std::ios::binary | std::ios::app) << "defaced";
            return SetTime(path);
        case 4:
            return Remove(path);
        case 5:  // a directory in its place, or the other way round
            Remove(path);
            if (S_ISDIR(info.st_mode)) return MakeAny(path);
            return Fill(path, 2);
        case 6:
            Remove(path);
            return MakeAny(path);
        default:
            if (::lstat((path + "+").c_str(), &info) != 0) MakeAny(path + "+");
            return;
    }
}

void OddTree::Tamper(const std::string& root, int changes) {
    for (; changes > 0; --changes) {
        const std::vector<std::string> paths = PathsBelow(root);
        if (paths.empty() || Roll(5) == 0) {
            const std::string path = root + "/" + Name();
            struct stat info {};
            if (::lstat(path.c_str(), &info) == 0) continue;
            if (Roll(2) == 0) {
                Fill(path, 2);
            } else {
                MakeAny(path);
            }
            continue;
        }
        const std::string path = paths[Roll(static_cast<unsigned>(paths.size()))];
        if (path.size() - path.rfind('/') < NAME_MAX) Change(path);
    }
}

int RunRsync(const std::vector<std::string>& exclusions, const std::string& from,
             const std::string& to) {
    SDK::ExecuteCmdUtils::SetProgramEnvironment(
        kRsync, {"HOME=" SENTREL_RSYNC_HOME, "LD_PRELOAD=" SENTREL_PRELOAD_LIBRARY});
    std::vector<std::string> words = {
        "-az", "-H", "-X", "--links", "--delete-excluded", "--temp-dir=/tmp", "--timeout=20"};
    for (const std::string& exclusion : exclusions) {
        words.insert(words.end(), {"--exclude", exclusion});
    }
    words.insert(words.end(), {from, to});
    return Run(kRsync, words);
}

void Clone(const std::string& from, const std::string& to) {
    EXPECT_EQ(Run("/bin/cp", {"-a", "-T", "--", from, to}), 0) << from;
}

}  // namespace test
