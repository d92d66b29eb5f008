#include "TestSite.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>

namespace test {

namespace {

namespace fs = std::filesystem;

constexpr int kDirectories = 14;
constexpr int kFiles = 70;

const std::array<const char*, 40> kOddNames = {
    "two words",
    "quo'te",
    "quo\"te",
    "dol$lar",
    "back\\slash",
    "new\nline",
    "\xff\xfe",
    "-dash",
    "\xc3\xbcmlaut",
    "percent%s",
    "semi;colon",
    "esc\x1b[31m",
    "dotted.",
    ".hidden",
    "\xe5\xa4\xa7.\xe7\xbd\x91",
    "star*",
    " leads",
    "ends ",
    "ends\t",
    "ends\n",
    "ends\r",
    "ends\\",
    "ends'",
    "ends\"",
    "ends;",
    "ends&",
    "ends$",
    "ends\x01",
    "ends\x7f",
    "ends\xc3",
    "ends~",
    "$(touch made)",
    "`touch made`",
    "x;touch made;y",
    "a|b >c <d",
    "--delete",
    "~",
    "#{a,b}[c]?!",
    " ",
    "\n",
};

}  // namespace

TestSite::TestSite(std::uint64_t seed) {
    Random random(seed);
    for (const std::string& path : {Site(), Outside(), LinkTarget(), Backup()}) {
        fs::create_directory(path);
    }
    dir_.Write("link-target/only/here", "unchanged");
    dir_.Write("link-target/page", "unchanged too");
    directories_ = {""};
    while (directories_.size() < kDirectories) {
        const std::string& parent = OneOf(directories_, random);
        directories_.push_back((parent.empty() ? "" : parent + "/") + "d" +
                               std::to_string(random() % 100));
    }
    directories_.push_back("-d " + Name(random).substr(0, 20));
    directories_.push_back(kExcluded);
    directories_.push_back(std::string(kExcluded) + "/deep");
    for (const std::string& path : directories_) fs::create_directories(Site() + "/" + path);
    for (int file = 0; file < kFiles; ++file) {
        const std::string& parent = OneOf(directories_, random);
        const std::string name =
            OneIn(random, 8) ? Name(random) : "f" + std::to_string(file) + ".html";
        AddObject((parent.empty() ? "" : parent + "/") + name, random);
    }
}

void TestSite::AddObject(const std::string& path, Random& random) {
    const std::string full = Site() + "/" + path;
    if (fs::exists(fs::symlink_status(full))) return;
    const auto kind = random() % 16;
    if (kind == 0) {
        ::mkfifo(full.c_str(), 0640);
    } else if (kind < 3 && !files_.empty()) {
        fs::create_symlink(OneIn(random, 2) ? Site() + "/" + OneOf(files_, random) : "nowhere",
                           full);
    } else if (kind == 3 && !files_.empty()) {
        std::error_code ignored;
        fs::create_hard_link(Site() + "/" + OneOf(files_, random), full, ignored);
    } else {
        dir_.Write("site/" + path, Content(random));
    }
    files_.push_back(path);
}

std::string TestSite::Name(Random& random) {
    if (OneIn(random, 3)) return OneOf(kOddNames, random);
    if (OneIn(random, 40)) return std::string(255, 'l');
    return "n" + std::to_string(random() % 30);
}

std::string TestSite::Content(Random& random) {
    const std::size_t size = random() % (OneIn(random, 30) ? 200000 : 3000);
    std::string content;
    while (content.size() < size) content += "line " + std::to_string(random()) + "\n";
    content.resize(size);
    return content;
}

}  // namespace test
