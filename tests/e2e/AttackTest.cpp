// The account that owns the site and the directories above it attacks the real agent. A seed
// decides its operations, not their timing. It must not change the site, the copies or files of
// others, and must not become root.
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileDescriptor.h>
#include <signal.h>
#include <site/TreeState.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "support/ProtectedSite.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using SDK::FileDescriptor;
using test::TempDir;
using Random = std::mt19937_64;

constexpr uid_t kAttacker = 33;
constexpr uid_t kOtherUser = 34;
constexpr const char* kPages[] = {"index.html",   "style.css",       "linked.html",
                                  "d1/page.html", "d1/d2/page.html", "d1/d2/d3/page.html"};
constexpr const char* kLevels[] = {"d1", "d1/d2", "d1/d2/d3"};
/// Names that the agent uses for unfinished files.
constexpr const char* kInternalNames[] = {".morvane-restore-0123456789abcdef",
                                          ".morvane-backup-0123456789abcdef", ".morvane-tmp",
                                          "#123"};
constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
constexpr int kOld = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

/// A shell command without a "/" that runs `command`.
std::string EncodedCommand(const std::string& command) {
    std::string text;
    for (const char byte : command) text += byte == '/' ? "$(printf '\\57')" : std::string(1, byte);
    return text;
}

/// Metadata and content of all objects of a tree, by path.
std::map<std::string, std::string> Snapshot(const std::string& root) {
    std::map<std::string, std::string> snapshot;
    const auto add = [&](const std::string& path) {
        struct stat info {};
        ::lstat(path.c_str(), &info);
        std::ostringstream text;
        text << info.st_ino << " " << std::oct << info.st_mode << std::dec << " " << info.st_uid
             << ":" << info.st_gid << " links " << info.st_nlink << " size " << info.st_size
             << " time " << info.st_mtim.tv_sec << "." << info.st_mtim.tv_nsec;
        if (S_ISREG(info.st_mode)) text << " " << TempDir::Read(path);
        snapshot[path] = text.str();
    };
    add(root);
    for (const auto& entry : fs::recursive_directory_iterator(root)) add(entry.path());
    return snapshot;
}

void ChangeOwner(const std::string& root, uid_t user) {
    ::lchown(root.c_str(), user, user);
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        ::lchown(entry.path().c_str(), user, user);
    }
}

/// The attacked site, and a directory of others that must not change.
class TestArea {
  public:
    TestArea() {
        ::chmod(area_.Path().c_str(), 0755);
        fs::create_directory(Markers());
        ::chmod(Markers().c_str(), 0700);
        MakeSite();
        MakeUnrelated();
    }
    ~TestArea() { SDK::DirUtils::DeleteDir(area_.Path("www")); }  // of any depth
    TestArea(const TestArea&) = delete;
    TestArea& operator=(const TestArea&) = delete;

    std::string Www() const { return area_.Path("www"); }
    std::string Public() const { return area_.Path("www/site/public"); }
    std::string Page(const std::string& name) const { return Public() + "/" + name; }
    std::string Out() const { return area_.Path("out"); }
    std::string Unrelated() const { return area_.Path("unrelated"); }
    std::string Markers() const { return area_.Path("markers"); }
    std::string Findings() const { return area_.Path("findings"); }
    static std::string Good(const std::string& name) { return "This is " + name + "\n"; }

    /// Names that a shell or a splitter of command lines would interpret.
    std::vector<std::string> Names() const {
        const auto mark = [&](const char* name) {
            return EncodedCommand("touch " + Markers() + "/" + name);
        };
        return {"x;" + mark("a") + ";y.html",
                "$(" + mark("b") + ").html",
                "`" + mark("c") + "`.html",
                "new\n" + mark("d") + "\n.html",
                "'; " + mark("e") + "; '.html",
                "\"; " + mark("f") + "; \".html",
                "p|" + mark("g"),
                "a --rsync-path=x b.html",
                "a -e sh b.html",
                "--delete",
                "-rf",
                "--",
                " ",
                "~",
                "*",
                "\xff\xfe.html",
                "back\\"};
    }

  private:
    void MakeSite() {
        const std::string site = "www/site/public/";
        for (const char* name : kPages) area_.Write(site + name, Good(name));
        for (const std::string& name : Names()) {
            area_.Write(site + "files/" + name, "good");
            area_.Write(site + "dirs/" + name + "/page.html", "good");
        }
        fs::create_directory(Page("uploads"));
        fs::create_symlink("index.html", Page("link"));
        ::chmod(Page("d1/page.html").c_str(), 0640);
        for (const auto& entry : fs::recursive_directory_iterator(Public())) {
            const timespec old[2] = {{1000000000, 0}, {1000000000, 5}};
            ::utimensat(AT_FDCWD, entry.path().c_str(), old, AT_SYMLINK_NOFOLLOW);
        }
        fs::create_directory(Out());
        ChangeOwner(Www(), kAttacker);
        ChangeOwner(Out(), kAttacker);
    }
    /// It has the names of the site at each level, so that following a link does harm.
    void MakeUnrelated() {
        for (const char* top : {"", "public/", "site/public/"}) {
            for (const char* name : kPages) {
                area_.Write(std::string("unrelated/") + top + name, "of another user");
            }
        }
        area_.Write("unrelated/guest/diary", "secret");
        ChangeOwner(Unrelated() + "/guest", kOtherUser);
        // Equals a page except for its owner.
        area_.Write("unrelated/notes", Good("linked.html"));
        area_.Write("unrelated/shared/plan", "a plan");
        for (const auto& [name, mode] : {std::pair("notes", 0664), std::pair("shared", 02775)}) {
            const std::string path = Unrelated() + "/" + name;
            ::chown(path.c_str(), 0, kAttacker);
            ::chmod(path.c_str(), static_cast<mode_t>(mode));
        }
    }

    TempDir area_;
};

/// The operations of one attacker process. They use open directories, so that its own links do not
/// redirect them.
class Attacker {
  public:
    Attacker(const TestArea& area, int findings, std::uint64_t seed)
        : test_area_(area),
          random_(seed),
          findings_(findings),
          prefix_("a" + std::to_string(seed % 1000000)),
          www_(Open(AT_FDCWD, area.Www())),
          public_(Open(AT_FDCWD, area.Public())),
          out_(Open(AT_FDCWD, area.Out())) {}

    /// Drops root for good.
    static bool DropPrivileges() {
        const gid_t group = kAttacker;
        return ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::setgroups(1, &group) == 0 &&
               ::setresgid(group, group, group) == 0 &&
               ::setresuid(kAttacker, kAttacker, kAttacker) == 0 && ::setuid(0) != 0;
    }

    void TamperWithOddNames() {
        const FileDescriptor files = Open(public_.Get(), "files");
        const FileDescriptor directories = Open(public_.Get(), "dirs");
        for (const std::string& name : test_area_.Names()) {
            Tamper(files.Get(), name);
            const FileDescriptor inside = Open(directories.Get(), name);
            OneIn(2) ? Tamper(inside.Get(), "page.html") : Tamper(directories.Get(), name);
            Pause(2ms);
        }
    }

    void SwapLinksAtEveryLevel() {
        for (int round = 0; round < 60; ++round) {
            const std::string level = kLevels[random_() % 3];
            const std::string spare = prefix_ + "-swap";
            SDK::DirUtils::DeleteAt(out_.Get(), spare);
            ::symlinkat((test_area_.Unrelated() + "/" + level).c_str(), out_.Get(), spare.c_str());
            const auto exchange = [&] {
                ::renameat2(public_.Get(), level.c_str(), out_.Get(), spare.c_str(),
                            RENAME_EXCHANGE);
            };
            if (OneIn(3)) SDK::DirUtils::DeleteAt(public_.Get(), "d1");
            exchange();
            if (OneIn(2)) Pause(3ms);
            if (OneIn(2)) exchange();
            const FileDescriptor held = Open(public_.Get(), kLevels[random_() % 3]);
            Tamper(held.Get(), "page.html");
            Pause(5ms);
        }
    }

    /// The attacker also owns the parent directory of the site.
    bool ReplaceSiteByLink() {
        return ::renameat(www_.Get(), "site", www_.Get(), "site.old") == 0 &&
               ::symlinkat(test_area_.Unrelated().c_str(), www_.Get(), "site") == 0;
    }
    void PutSiteBack() {
        Expect(::unlinkat(www_.Get(), "site", 0) == 0 &&
                   ::renameat(www_.Get(), "site.old", www_.Get(), "site") == 0,
               "cannot put the site back");
    }
    void Deface(const std::string& name) { Append(public_.Get(), name); }

    void ReplaceByOtherTypes() {
        for (int round = 0; round < 6; ++round) {
            ::mkfifoat(public_.Get(), "d1/pipe", 0666);
            BindSocket("sock");
            LinkUnnamedFile("d1/unnamed.php");
            LinkUnnamedFile(std::string(255, 'l'));
            ReplaceByDirectory("style.css");
            ::symlinkat((test_area_.Unrelated() + "/public").c_str(), public_.Get(), "d1/planted");
            SDK::DirUtils::DeleteAt(public_.Get(), "d1");
            Write(public_.Get(), "d1", kNew);
            ::unlinkat(public_.Get(), "link", 0);
            ::symlinkat((test_area_.Unrelated() + "/notes").c_str(), public_.Get(), "link");
            Pause(40ms);
        }
    }

    /// Hard links to files of others in the site, and to the site's files in the excluded
    /// directory.
    void LinkFiles() {
        const std::string spare = prefix_ + "-hard";
        const std::string notes = test_area_.Unrelated() + "/notes";
        for (int round = 0; round < 30; ++round) {
            ::linkat(AT_FDCWD, notes.c_str(), out_.Get(), spare.c_str(), 0);
            ::renameat(out_.Get(), spare.c_str(), public_.Get(), OneIn(2) ? "linked.html" : "new");
            ::unlinkat(out_.Get(), spare.c_str(), 0);
            const std::string upload = "uploads/" + prefix_ + std::to_string(round);
            ::linkat(public_.Get(), "d1/page.html", public_.Get(), upload.c_str(), 0);
            Append(public_.Get(), upload);
            Pause(5ms);
        }
    }
    void AppendToLinksFor(Clock::duration time) {
        ::linkat(public_.Get(), "style.css", public_.Get(), "uploads/hard", 0);
        for (const auto end = Clock::now() + time; Clock::now() < end; Pause(1ms)) {
            Append(public_.Get(), "uploads/hard");
        }
    }

    void UseInternalNames() {
        for (const char* name : kInternalNames) {
            const FileDescriptor directory = Open(public_.Get(), kLevels[random_() % 3]);
            Write(public_.Get(), name, kNew);
            OneIn(2) ? Write(directory.Get(), name, kNew)
                     : static_cast<void>(::mkdirat(directory.Get(), name, 0777));
            Pause(5ms);
        }
    }

    /// The attacker owns the copies but must not reach them.
    void TryToAccessCopies(const std::string& backup, pid_t agent) {
        const std::string process = "/proc/" + std::to_string(agent);
        const std::string copy = backup + test_area_.Public();
        for (const std::string& place : {backup, backup + "/tmp", copy, copy + "/d1",
                                         process + "/fd", process + "/cwd", process + "/root"}) {
            ExpectDenied(::open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), place);
        }
        for (const char* page : kPages) {
            const std::string file = copy + "/" + page;
            ExpectDenied(::open(file.c_str(), O_RDONLY | O_CLOEXEC), file);
            ExpectDenied(::open(file.c_str(), O_WRONLY | O_CLOEXEC), file);
            ExpectDenied(::chmod(file.c_str(), 0666), file);
            ExpectDenied(::unlink(file.c_str()), file);
            ExpectDenied(::rename(file.c_str(), test_area_.Page("stolen").c_str()), file);
            ExpectDenied(::link(file.c_str(), test_area_.Page("stolen").c_str()), file);
        }
        ExpectDenied(::chmod(backup.c_str(), 0777), backup);
        ExpectDenied(::rename(backup.c_str(), (test_area_.Out() + "/b").c_str()), backup);
    }

    void CreateSparseFiles(int count) {
        for (int file = 0; file < count; ++file) {
            const FileDescriptor made(::openat(
                public_.Get(), ("huge" + std::to_string(file) + ".txt").c_str(), kNew, 0644));
            Expect(::write(made.Get(), "text\n", 5) == 5 &&
                       ::ftruncate(made.Get(), 6L * 1024 * 1024 * 1024) == 0,
                   "cannot create a sparse file");
        }
    }

    /// Replaces the protected directory by a link and by another directory.
    void ReplaceTheSite() {
        const FileDescriptor parent = Open(www_.Get(), "site");
        ::renameat(parent.Get(), "public", parent.Get(), "public.old");
        ::symlinkat(test_area_.Unrelated().c_str(), parent.Get(), "public");
        const auto is_directory = [&] {
            struct stat info {};
            return ::fstatat(parent.Get(), "public", &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                   S_ISDIR(info.st_mode);
        };
        Expect(test::WaitFor(is_directory, test::Scaled(10s)),
               "the agent does not restore the site");
        for (int round = 0; round < 20; ++round) {
            if (::renameat(parent.Get(), "public", parent.Get(), "public.kept") != 0) continue;
            // When the agent was faster, its directory stays.
            if (::mkdirat(parent.Get(), "public", 0777) == 0) {
                Write(parent.Get(), "public/index.html", kNew);
                if (OneIn(2)) Pause(5ms);
                ::renameat2(parent.Get(), "public", parent.Get(), "public.kept", RENAME_EXCHANGE);
            }
            SDK::DirUtils::DeleteAt(parent.Get(), "public.kept");
        }
    }

    void HoldLease() {
        ::signal(SIGIO, SIG_IGN);
        Write(public_.Get(), "aa-leased.html", kNew);
        lease_.Reset(::openat(public_.Get(), "aa-leased.html", O_RDWR | O_CLOEXEC));
        Expect(::fcntl(lease_.Get(), F_SETLEASE, F_WRLCK) == 0, "cannot take a lease");
    }
    void CreateTooLongPath() {
        FileDescriptor at = Open(public_.Get(), ".");
        const std::string name(250, 'd');
        for (int level = 0; level < 20; ++level) {
            ::mkdirat(at.Get(), name.c_str(), 0755);
            at = Open(at.Get(), name);
        }
        Write(at.Get(), "shell.php", kNew);
    }
    void CreateTenTerabyteFile() {
        const FileDescriptor file(::openat(public_.Get(), "bb-vast.html", kNew, 0644));
        Expect(::ftruncate(file.Get(), 10'000'000'000'000) == 0, "cannot create a file of 10 TB");
    }
    void CreateAndRemoveFile() {
        Write(public_.Get(), "cc-gone.html", kNew);
        Pause(3ms);
        ::unlinkat(public_.Get(), "cc-gone.html", 0);
        Pause(3ms);
    }

    void Expect(bool condition, const std::string& text) const {
        if (!condition) ::dprintf(findings_, "%s: %s\n", text.c_str(), std::strerror(errno));
    }
    bool OneIn(unsigned chance) { return random_() % chance == 0; }

  private:
    static FileDescriptor Open(int directory, const std::string& name) {
        return FileDescriptor(
            ::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    static void Write(int directory, const std::string& name, int flags) {
        const FileDescriptor file(::openat(directory, name.c_str(), flags, 0644));
        if (file.IsOpen()) (void)!::write(file.Get(), "defaced", 7);
    }
    static void Append(int directory, const std::string& name) { Write(directory, name, kOld); }
    /// Not a wait for the agent: sets the pace of the attack.
    static void Pause(Clock::duration time) {
        for (const auto end = Clock::now() + time; Clock::now() < end;) ::sched_yield();
    }

    /// Changes a file or directory in a random way.
    void Tamper(int directory, const std::string& name) {
        if (directory < 0) return;
        const auto way = random_() % 6;
        if (way == 0) Append(directory, name);
        if (way == 1 || way == 2 || way == 3) SDK::DirUtils::DeleteAt(directory, name);
        if (way == 2) ::mkdirat(directory, name.c_str(), 0777);
        if (way == 3) Write(directory, name, kNew);
        if (way == 5) ::fchmodat(directory, name.c_str(), 0777, 0);
        if (way != 4) return;
        ::renameat(directory, name.c_str(), directory, (name.substr(0, 200) + "2").c_str());
    }
    void ReplaceByDirectory(const std::string& page) {
        ::unlinkat(public_.Get(), page.c_str(), 0);
        ::mkdirat(public_.Get(), page.c_str(), 0755);
        Write(public_.Get(), page + "/shell.php", kNew);
    }
    void BindSocket(const std::string& name) {
        const FileDescriptor end(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = "/proc/self/fd/" + std::to_string(public_.Get()) + "/" + name;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        ::bind(end.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    }
    void LinkUnnamedFile(const std::string& name) {
        const FileDescriptor file(
            ::openat(public_.Get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644));
        (void)!::write(file.Get(), "evil", 4);
        ::linkat(AT_FDCWD, ("/proc/self/fd/" + std::to_string(file.Get())).c_str(), public_.Get(),
                 name.c_str(), AT_SYMLINK_FOLLOW);
    }
    void ExpectDenied(int result, const std::string& what) const {
        const bool is_denied = result < 0 && (errno == EACCES || errno == EPERM);
        Expect(is_denied, "not denied: " + what);
        if (result > 0) ::close(result);
    }

    const TestArea& test_area_;
    Random random_;
    const int findings_;
    const std::string prefix_;
    const FileDescriptor www_;
    const FileDescriptor public_;
    const FileDescriptor out_;
    FileDescriptor lease_;
};

using Action = std::function<void(Attacker&)>;

class Attack : public test::ProtectedSite, public testing::WithParamInterface<std::uint64_t> {
  protected:
    static constexpr std::chrono::seconds kAttackDeadline{60};

    Attack() {
        findings_.Reset(
            ::open(test_area_.Findings().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        original_ = Demo::TakeState(test_area_.Public());
        unrelated_ = Snapshot(test_area_.Unrelated());
    }
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    }
    ~Attack() override {
        for (const pid_t child : running_) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
    }

    Json::Value Policy() const {
        return test::ProtectionPolicy({{test_area_.Public(), backup_.Path(), true, {"uploads"}}});
    }
    void Protect() {
        ASSERT_TRUE(agent_.Start());
        ASSERT_EQ(agent_.Apply(Policy()), 0);
        ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    }

    /// Forks an attacker process that runs `action`.
    pid_t StartAttacker(std::uint64_t seed, const Action& action) {
        const pid_t child = ::fork();
        if (child != 0) {
            running_.push_back(child);
            return child;
        }
        if (!Attacker::DropPrivileges()) ::_exit(2);
        Attacker attacker(test_area_, findings_.Get(), seed);
        action(attacker);
        ::_exit(0);
    }
    void AwaitEnd(pid_t child) {
        int status = -1;
        EXPECT_TRUE(test::WaitFor([&] { return ::waitpid(child, &status, WNOHANG) == child; },
                                  test::Scaled(kAttackDeadline)));
        EXPECT_EQ(status, 0);
        if (status != -1) running_.erase(std::find(running_.begin(), running_.end(), child));
    }
    void RunAttacker(const Action& action) { AwaitEnd(StartAttacker(1, action)); }

    bool IsRestored(const std::string& page) const {
        return TempDir::Read(test_area_.Page(page)) == TestArea::Good(page);
    }
    Json::Value PathStatus() const { return agent_.Status()["protected_paths"][0]; }

    void ExpectNoHarm() {
        EXPECT_EQ(TempDir::Read(test_area_.Findings()), "");
        EXPECT_TRUE(fs::is_empty(test_area_.Markers()));
        const auto now = Snapshot(test_area_.Unrelated());
        for (const auto& [path, state] : unrelated_) {
            EXPECT_TRUE(now.count(path) > 0 && now.at(path) == state) << path << "\n" << state;
        }
        EXPECT_EQ(now.size(), unrelated_.size());
    }
    void ExpectRestored() {
        // The excluded directory has no copy.
        fs::remove_all(test_area_.Page("uploads"));
        fs::create_directory(test_area_.Page("uploads"));
        ::chown(test_area_.Page("uploads").c_str(), kAttacker, kAttacker);
        std::string difference;
        EXPECT_TRUE(Await([&] {
            difference = Demo::FindDifference(original_, test_area_.Public());
            return difference.empty();
        })) << difference
            << "\n"
            << agent_.Ctl({"status"}).out << agent_.Ctl({"alarms", "--limit", "30"}).out;
        ExpectNoHarm();
    }

    TestArea test_area_;
    FileDescriptor findings_;
    Demo::TreeState original_;
    std::map<std::string, std::string> unrelated_;
    std::vector<pid_t> running_;
};

using SeededAttack = Attack;

TEST_P(SeededAttack, ConcurrentOperations_SiteAndUnrelatedFilesAreUnharmed) {
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    // A page that is written through a link in the excluded directory is found by a look.
    std::ofstream(agent_.Path("conf/agent.json")) << R"({"sentrel": {"reconcile_seconds": 1}})";
    Protect();
    struct stat copy {};
    ASSERT_EQ(::lstat((backup_.Path() + test_area_.Page("index.html")).c_str(), &copy), 0);
    EXPECT_EQ(copy.st_uid, kAttacker);

    const std::string backup = backup_.Path();
    const pid_t agent = agent_.Pid();
    const std::array<Action, 6> actions = {
        [](Attacker& it) { it.TamperWithOddNames(); },
        [](Attacker& it) { it.SwapLinksAtEveryLevel(); },
        [](Attacker& it) { it.ReplaceByOtherTypes(); },
        [](Attacker& it) { it.LinkFiles(); },
        [](Attacker& it) { it.UseInternalNames(); },
        [&](Attacker& it) { it.TryToAccessCopies(backup, agent); }};
    constexpr std::size_t kAttackers = 3;
    std::vector<std::size_t> order(actions.size());
    for (std::size_t at = 0; at < order.size(); ++at) order[at] = at;
    Random random(GetParam());
    std::shuffle(order.begin(), order.end(), random);
    std::vector<pid_t> attackers;
    for (std::size_t attacker = 0; attacker < kAttackers; ++attacker) {
        attackers.push_back(StartAttacker(random(), [&](Attacker& it) {
            for (int round = 0; round < 2; ++round) {
                for (std::size_t at = attacker; at < order.size(); at += kAttackers) {
                    actions[order[at]](it);
                }
            }
        }));
    }
    for (const pid_t attacker : attackers) AwaitEnd(attacker);
    ExpectRestored();
    // The attack did reach the agent.
    const Json::Value counters = agent_.Status()["counters"];
    EXPECT_GE(counters["restores_done"].asInt(), 50) << counters;
    EXPECT_GE(counters["planted_links_removed"].asInt(), 1) << counters;
    AwaitEnd(StartAttacker(random(), [](Attacker& it) { it.ReplaceTheSite(); }));
    ExpectRestored();
    EXPECT_TRUE(Await([&] { return PathStatus()["problem"].asString().empty(); })) << PathStatus();
    EXPECT_EQ(agent_.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SeededAttack, testing::Values(1U, 2U, 3U));

TEST_F(Attack, NameRunByAShell_LeavesAMarker) {
    const std::string name = test_area_.Names().front();
    (void)std::system(("exec 2>/dev/null; " + name).c_str());
    EXPECT_FALSE(fs::is_empty(test_area_.Markers()));
}

TEST_F(Attack, PathReplacedByALink_IsReportedAndNotFollowedUntilItIsBack) {
    Protect();
    RunAttacker([](Attacker& it) { it.Expect(it.ReplaceSiteByLink(), "cannot replace the site"); });
    RunAttacker([](Attacker& it) { it.Deface("index.html"); });
    EXPECT_TRUE(Await([&] { return !PathStatus()["problem"].asString().empty(); })) << PathStatus();
    EXPECT_TRUE(Await([&] {
        return agent_.Ctl({"alarms"}).out.find("not protected: ") != std::string::npos;
    })) << agent_.Ctl({"alarms"}).out;
    ExpectNoHarm();
    RunAttacker([](Attacker& it) { it.PutSiteBack(); });
    ExpectRestored();
    EXPECT_TRUE(Await([&] { return PathStatus()["problem"].asString().empty(); })) << PathStatus();
    EXPECT_TRUE(Await([&] {
        RunAttacker([](Attacker& it) { it.Deface("style.css"); });
        return test::WaitFor([&] { return IsRestored("style.css"); }, test::Scaled(2s));
    }));
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Attack, WhatCannotBeCopied_LeavesThePagesProtected) {
    // rsync's copy of the 10 TB file must not fill the disk.
    agent_.RunThrough({"/usr/bin/prlimit", "--fsize=16777216"});
    RunAttacker([](Attacker& it) {
        it.CreateTooLongPath();
        it.CreateTenTerabyteFile();
    });
    const pid_t leasing = StartAttacker(1, [](Attacker& it) {
        it.HoldLease();
        for (;;) it.CreateAndRemoveFile();
    });
    ASSERT_GT(leasing, 0);
    ASSERT_TRUE(Await([&] { return fs::exists(test_area_.Page("cc-gone.html")); }));
    ASSERT_TRUE(agent_.Start());
    ASSERT_EQ(agent_.Apply(Policy()), 0);
    // inotify cannot watch the too long paths either.
    ASSERT_TRUE(Await([&] {
        return PathStatus()["state"] == "degraded" &&
               PathStatus()["open_objects"]["count"].asInt() > 0 &&
               !agent_.Status()["backup"]["local_pending"].asBool();
    })) << agent_.Status();
    EXPECT_GE(PathStatus()["open_objects"]["count"].asInt(), 3) << PathStatus();
    for (const char* page : kPages) {
        RunAttacker([&](Attacker& it) { it.Deface(page); });
        EXPECT_TRUE(Await([&] { return IsRestored(page); })) << page << agent_.Status();
    }
    ExpectNoHarm();
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Attack, ConstantAppendsToAHardLink_CostLittleCpuAndThePageIsRestored) {
    Protect();
    const auto cpu_ms = [&] {
        const std::string stat = TempDir::Read("/proc/" + std::to_string(agent_.Pid()) + "/stat");
        std::istringstream words(stat.substr(stat.rfind(')') + 1));
        std::string word;
        for (int at = 3; at < 14; ++at) words >> word;
        long user = 0;
        long system = 0;
        words >> user >> system;
        return (user + system) * 1000 / ::sysconf(_SC_CLK_TCK);
    };
    const long before = cpu_ms();
    RunAttacker([](Attacker& it) { it.AppendToLinksFor(3s); });
    EXPECT_LT(cpu_ms() - before, test::Scaled(1200ms).count());
    ExpectRestored();
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Attack, SparseFilesOfManyGigabytes_DoNotDelayARestore) {
    Protect();
    const auto begin = Clock::now();
    RunAttacker([](Attacker& it) {
        it.CreateSparseFiles(10);
        it.Deface("index.html");
    });
    EXPECT_TRUE(Await([&] { return IsRestored("index.html"); }));
    EXPECT_LT(Clock::now() - begin, test::Scaled(5s));
    ExpectRestored();
    EXPECT_EQ(agent_.Stop(), 0);
}

}  // namespace
