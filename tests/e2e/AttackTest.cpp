// The account that owns the whole site, and whatever lies above it, against the real agent. What it
// does is fixed by a seed up to the timing. It may win nothing: not the site, not the copies, not
// what belongs to somebody else, and not root.
#include <TreeState.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sdk/files/DirUtils.h>
#include <sdk/files/FileDescriptor.h>
#include <signal.h>
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
constexpr uid_t kGuest = 34;
constexpr const char* kPages[] = {"index.html",   "style.css",       "linked.html",
                                  "d1/page.html", "d1/d2/page.html", "d1/d2/d3/page.html"};
constexpr const char* kLevels[] = {"d1", "d1/d2", "d1/d2/d3"};
/// Names that the agent uses itself for what it has not finished.
constexpr const char* kOurNames[] = {".morvane-restore-0123456789abcdef",
                                     ".morvane-backup-0123456789abcdef", ".morvane-tmp", "#123"};
constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
constexpr int kOld = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

std::string Base64(const std::string& text) {
    static constexpr char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string coded;
    for (std::size_t at = 0; at + 2 < text.size(); at += 3) {
        const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[at + i]); };
        const unsigned bits = static_cast<unsigned>(byte(0) << 16 | byte(1) << 8 | byte(2));
        for (const unsigned shift : {18U, 12U, 6U, 0U}) coded += kDigits[bits >> shift & 63U];
    }
    return coded;
}

/// Shell text without a "/" that does what `command` says.
std::string Smuggled(std::string command) {
    while (command.size() % 3 != 0) command += ' ';
    while (Base64(command).find('/') != std::string::npos) command.insert(0, "   ");
    return "echo " + Base64(command) + "|base64 -d|sh";
}

/// All that can be seen of a tree, by path.
std::map<std::string, std::string> Look(const std::string& root) {
    std::map<std::string, std::string> seen;
    const auto add = [&](const std::string& path) {
        struct stat info {};
        ::lstat(path.c_str(), &info);
        std::ostringstream text;
        text << info.st_ino << " " << std::oct << info.st_mode << std::dec << " " << info.st_uid
             << ":" << info.st_gid << " links " << info.st_nlink << " size " << info.st_size
             << " time " << info.st_mtim.tv_sec << "." << info.st_mtim.tv_nsec;
        if (S_ISREG(info.st_mode)) text << " " << TempDir::Read(path);
        seen[path] = text.str();
    };
    add(root);
    for (const auto& entry : fs::recursive_directory_iterator(root)) add(entry.path());
    return seen;
}

void Give(const std::string& root, uid_t user) {
    ::lchown(root.c_str(), user, user);
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        ::lchown(entry.path().c_str(), user, user);
    }
}

/// Everything that there is to attack, and the bystander that nobody may touch.
class Ground {
  public:
    Ground() {
        ::chmod(area_.Path().c_str(), 0755);
        fs::create_directory(Markers());
        ::chmod(Markers().c_str(), 0700);
        MakeSite();
        MakeBystander();
    }
    ~Ground() { SDK::DirUtils::DeleteDir(area_.Path("www")); }  // of any depth
    Ground(const Ground&) = delete;
    Ground& operator=(const Ground&) = delete;

    std::string Www() const { return area_.Path("www"); }
    std::string Public() const { return area_.Path("www/site/public"); }
    std::string Page(const std::string& name) const { return Public() + "/" + name; }
    std::string Out() const { return area_.Path("out"); }
    std::string Bystander() const { return area_.Path("bystander"); }
    std::string Markers() const { return area_.Path("markers"); }
    std::string Findings() const { return area_.Path("findings"); }
    static std::string Good(const std::string& name) { return "This is " + name + "\n"; }

    /// Names that a shell, or whoever splits a line, would make something of.
    std::vector<std::string> Names() const {
        const auto mark = [&](const char* name) {
            return Smuggled("touch " + Markers() + "/" + name);
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
        Give(Www(), kAttacker);
        Give(Out(), kAttacker);
    }
    /// At each level it has what the site has, so that whoever goes astray does harm.
    void MakeBystander() {
        for (const char* top : {"", "public/", "site/public/"}) {
            for (const char* name : kPages) {
                area_.Write(std::string("bystander/") + top + name, "somebody else's");
            }
        }
        area_.Write("bystander/guest/diary", "secret");
        Give(Bystander() + "/guest", kGuest);
        // The same as a page, but for its owner.
        area_.Write("bystander/notes", Good("linked.html"));
        area_.Write("bystander/shared/plan", "a plan");
        for (const auto& [name, mode] : {std::pair("notes", 0664), std::pair("shared", 02775)}) {
            const std::string path = Bystander() + "/" + name;
            ::chown(path.c_str(), 0, kAttacker);
            ::chmod(path.c_str(), static_cast<mode_t>(mode));
        }
    }

    TempDir area_;
};

/// One process of the attacker's, or rather what it does; it works by held directories, so that
/// nothing of its own doing goes astray.
class Attacker {
  public:
    Attacker(const Ground& ground, int findings, std::uint64_t seed)
        : ground_(ground),
          random_(seed),
          findings_(findings),
          mark_("a" + std::to_string(seed % 1000000)),
          www_(Open(AT_FDCWD, ground.Www())),
          public_(Open(AT_FDCWD, ground.Public())),
          out_(Open(AT_FDCWD, ground.Out())) {}

    /// Gives up all that is root's, for good.
    static bool Become() {
        const gid_t group = kAttacker;
        return ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::setgroups(1, &group) == 0 &&
               ::setresgid(group, group, group) == 0 &&
               ::setresuid(kAttacker, kAttacker, kAttacker) == 0 && ::setuid(0) != 0;
    }

    void TamperWithOddNames() {
        const FileDescriptor files = Open(public_.Get(), "files");
        const FileDescriptor directories = Open(public_.Get(), "dirs");
        for (const std::string& name : ground_.Names()) {
            Tamper(files.Get(), name);
            const FileDescriptor inside = Open(directories.Get(), name);
            Once(2) ? Tamper(inside.Get(), "page.html") : Tamper(directories.Get(), name);
            Linger(2ms);
        }
    }

    void SwapLinksAtEveryLevel() {
        for (int round = 0; round < 60; ++round) {
            const std::string level = kLevels[random_() % 3];
            const std::string spare = mark_ + "-swap";
            SDK::DirUtils::DeleteAt(out_.Get(), spare);
            ::symlinkat((ground_.Bystander() + "/" + level).c_str(), out_.Get(), spare.c_str());
            const auto exchange = [&] {
                ::renameat2(public_.Get(), level.c_str(), out_.Get(), spare.c_str(),
                            RENAME_EXCHANGE);
            };
            if (Once(3)) SDK::DirUtils::DeleteAt(public_.Get(), "d1");
            exchange();
            if (Once(2)) Linger(3ms);
            if (Once(2)) exchange();
            const FileDescriptor held = Open(public_.Get(), kLevels[random_() % 3]);
            Tamper(held.Get(), "page.html");
            Linger(5ms);
        }
    }

    /// What the site lies in is the attacker's as well.
    bool LeadAstray() {
        return ::renameat(www_.Get(), "site", www_.Get(), "site.old") == 0 &&
               ::symlinkat(ground_.Bystander().c_str(), www_.Get(), "site") == 0;
    }
    void LeadBack() {
        Expect(::unlinkat(www_.Get(), "site", 0) == 0 &&
                   ::renameat(www_.Get(), "site.old", www_.Get(), "site") == 0,
               "site cannot be swapped back");
    }
    void Deface(const std::string& name) { Append(public_.Get(), name); }

    void ChangeKinds() {
        for (int round = 0; round < 6; ++round) {
            ::mkfifoat(public_.Get(), "d1/pipe", 0666);
            BindSocket("sock");
            PutUnnamedFile("d1/unnamed.php");
            PutUnnamedFile(std::string(255, 'l'));
            BecomeDirectory("style.css");
            ::symlinkat((ground_.Bystander() + "/public").c_str(), public_.Get(), "d1/planted");
            SDK::DirUtils::DeleteAt(public_.Get(), "d1");
            Write(public_.Get(), "d1", kNew);
            ::unlinkat(public_.Get(), "link", 0);
            ::symlinkat((ground_.Bystander() + "/notes").c_str(), public_.Get(), "link");
            Linger(40ms);
        }
    }

    /// Files of others under names in the site, and the site's files under names out of it.
    void LinkFiles() {
        const std::string spare = mark_ + "-hard";
        const std::string notes = ground_.Bystander() + "/notes";
        for (int round = 0; round < 30; ++round) {
            ::linkat(AT_FDCWD, notes.c_str(), out_.Get(), spare.c_str(), 0);
            ::renameat(out_.Get(), spare.c_str(), public_.Get(), Once(2) ? "linked.html" : "new");
            ::unlinkat(out_.Get(), spare.c_str(), 0);
            const std::string upload = "uploads/" + mark_ + std::to_string(round);
            ::linkat(public_.Get(), "d1/page.html", public_.Get(), upload.c_str(), 0);
            Append(public_.Get(), upload);
            Linger(5ms);
        }
    }
    void AppendToLinksFor(Clock::duration time) {
        ::linkat(public_.Get(), "style.css", public_.Get(), "uploads/hard", 0);
        for (const auto end = Clock::now() + time; Clock::now() < end; Linger(1ms)) {
            Append(public_.Get(), "uploads/hard");
        }
    }

    void ImitateTheAgent() {
        for (const char* name : kOurNames) {
            const FileDescriptor directory = Open(public_.Get(), kLevels[random_() % 3]);
            Write(public_.Get(), name, kNew);
            Once(2) ? Write(directory.Get(), name, kNew)
                    : static_cast<void>(::mkdirat(directory.Get(), name, 0777));
            Linger(5ms);
        }
    }

    /// The copies keep his ownership, but he does not get there.
    void ReachForTheCopies(const std::string& backup, pid_t agent) {
        const std::string process = "/proc/" + std::to_string(agent);
        const std::string copy = backup + ground_.Public();
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
            ExpectDenied(::rename(file.c_str(), ground_.Page("stolen").c_str()), file);
            ExpectDenied(::link(file.c_str(), ground_.Page("stolen").c_str()), file);
        }
        ExpectDenied(::chmod(backup.c_str(), 0777), backup);
        ExpectDenied(::rename(backup.c_str(), (ground_.Out() + "/b").c_str()), backup);
    }

    void PlantSparseFiles(int count) {
        for (int file = 0; file < count; ++file) {
            const FileDescriptor made(::openat(
                public_.Get(), ("huge" + std::to_string(file) + ".txt").c_str(), kNew, 0644));
            Expect(::write(made.Get(), "text\n", 5) == 5 &&
                       ::ftruncate(made.Get(), 6L * 1024 * 1024 * 1024) == 0,
                   "no sparse file");
        }
    }

    /// The protected directory itself: gone, a link, another one, and back.
    void ReplaceTheSite() {
        const FileDescriptor parent = Open(www_.Get(), "site");
        ::renameat(parent.Get(), "public", parent.Get(), "public.old");
        ::symlinkat(ground_.Bystander().c_str(), parent.Get(), "public");
        const auto is_directory = [&] {
            struct stat info {};
            return ::fstatat(parent.Get(), "public", &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                   S_ISDIR(info.st_mode);
        };
        Expect(test::WaitFor(is_directory, test::Scaled(10s)), "the site does not come back");
        for (int round = 0; round < 20; ++round) {
            if (::renameat(parent.Get(), "public", parent.Get(), "public.kept") != 0) continue;
            // Where the agent has been faster, its directory is the one that counts.
            if (::mkdirat(parent.Get(), "public", 0777) == 0) {
                Write(parent.Get(), "public/index.html", kNew);
                if (Once(2)) Linger(5ms);
                ::renameat2(parent.Get(), "public", parent.Get(), "public.kept", RENAME_EXCHANGE);
            }
            SDK::DirUtils::DeleteAt(parent.Get(), "public.kept");
        }
    }

    void HoldLease() {
        ::signal(SIGIO, SIG_IGN);
        Write(public_.Get(), "aa-leased.html", kNew);
        lease_.Reset(::openat(public_.Get(), "aa-leased.html", O_RDWR | O_CLOEXEC));
        Expect(::fcntl(lease_.Get(), F_SETLEASE, F_WRLCK) == 0, "no lease");
    }
    void DigBeyondPaths() {
        FileDescriptor at = Open(public_.Get(), ".");
        const std::string name(250, 'd');
        for (int level = 0; level < 20; ++level) {
            ::mkdirat(at.Get(), name.c_str(), 0755);
            at = Open(at.Get(), name);
        }
        Write(at.Get(), "shell.php", kNew);
    }
    void TruncateToTenTerabytes() {
        const FileDescriptor file(::openat(public_.Get(), "bb-vast.html", kNew, 0644));
        Expect(::ftruncate(file.Get(), 10'000'000'000'000) == 0, "no file of 10 TB");
    }
    void ComeAndGo() {
        Write(public_.Get(), "cc-gone.html", kNew);
        Linger(3ms);
        ::unlinkat(public_.Get(), "cc-gone.html", 0);
        Linger(3ms);
    }

    void Expect(bool condition, const std::string& text) const {
        if (!condition) ::dprintf(findings_, "%s: %s\n", text.c_str(), std::strerror(errno));
    }
    bool Once(unsigned chance) { return random_() % chance == 0; }
    Random& Seeded() { return random_; }

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
    /// The attacker's own pace.
    static void Linger(Clock::duration time) {
        for (const auto end = Clock::now() + time; Clock::now() < end;) ::sched_yield();
    }

    /// A file or directory becomes another in one of many ways.
    void Tamper(int directory, const std::string& name) {
        switch (directory < 0 ? 6 : random_() % 6) {
            case 0:
                Append(directory, name);
                break;
            case 1:
                SDK::DirUtils::DeleteAt(directory, name);
                break;
            case 2:
                SDK::DirUtils::DeleteAt(directory, name);
                ::mkdirat(directory, name.c_str(), 0777);
                break;
            case 3:
                SDK::DirUtils::DeleteAt(directory, name);
                Write(directory, name, kNew);
                break;
            case 4:
                ::renameat(directory, name.c_str(), directory, (name.substr(0, 200) + "2").c_str());
                break;
            case 5:
                ::fchmodat(directory, name.c_str(), 0777, 0);
                break;
            default:
                break;
        }
    }
    void BecomeDirectory(const std::string& page) {
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
    void PutUnnamedFile(const std::string& name) {
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

    const Ground& ground_;
    Random random_;
    const int findings_;
    const std::string mark_;
    const FileDescriptor www_;
    const FileDescriptor public_;
    const FileDescriptor out_;
    FileDescriptor lease_;
};

using Act = std::function<void(Attacker&)>;

class Attack : public test::ProtectedSite, public testing::WithParamInterface<std::uint64_t> {
  protected:
    static constexpr std::chrono::seconds kAttackDeadline{60};

    Attack() {
        if (::geteuid() != 0) return;
        findings_.Reset(
            ::open(ground_.Findings().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        original_ = Demo::TakeState(ground_.Public());
        bystander_ = Look(ground_.Bystander());
    }
    ~Attack() override {
        for (const pid_t child : running_) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
    }

    Json::Value Policy() const {
        return test::ProtectionPolicy({{ground_.Public(), backup_.Path(), true, {"uploads"}}});
    }
    void Protect() {
        ASSERT_TRUE(agent_.Start());
        ASSERT_EQ(agent_.Apply(Policy()), 0);
        ASSERT_TRUE(AwaitProtection()) << agent_.Status();
    }

    /// A process of the attacker's that does this.
    pid_t Begin(std::uint64_t seed, const Act& act) {
        const pid_t child = ::fork();
        if (child != 0) {
            running_.push_back(child);
            return child;
        }
        if (!Attacker::Become()) ::_exit(2);
        Attacker attacker(ground_, findings_.Get(), seed);
        act(attacker);
        ::_exit(0);
    }
    void AwaitEnd(pid_t child) {
        int status = -1;
        EXPECT_TRUE(test::WaitFor([&] { return ::waitpid(child, &status, WNOHANG) == child; },
                                  test::Scaled(kAttackDeadline)));
        EXPECT_EQ(status, 0);
        if (status != -1) running_.erase(std::find(running_.begin(), running_.end(), child));
    }
    void Do(const Act& act) { AwaitEnd(Begin(1, act)); }

    bool IsRestored(const std::string& page) const {
        return TempDir::Read(ground_.Page(page)) == Ground::Good(page);
    }
    Json::Value PathStatus() const { return agent_.Status()["protected_paths"][0]; }

    void ExpectNothingWon() {
        EXPECT_EQ(TempDir::Read(ground_.Findings()), "");
        EXPECT_TRUE(fs::is_empty(ground_.Markers()));
        const auto now = Look(ground_.Bystander());
        for (const auto& [path, state] : bystander_) {
            EXPECT_TRUE(now.count(path) > 0 && now.at(path) == state) << path << "\n" << state;
        }
        EXPECT_EQ(now.size(), bystander_.size());
    }
    void ExpectAllAsBefore() {
        // Excluded, and without a copy.
        fs::remove_all(ground_.Page("uploads"));
        fs::create_directory(ground_.Page("uploads"));
        ::chown(ground_.Page("uploads").c_str(), kAttacker, kAttacker);
        std::string difference;
        EXPECT_TRUE(Await([&] {
            difference = Demo::FindDifference(original_, ground_.Public());
            return difference.empty();
        })) << difference
            << "\n"
            << agent_.Ctl({"status"}).out << agent_.Ctl({"alarms", "--limit", "30"}).out;
        ExpectNothingWon();
    }

    Ground ground_;
    FileDescriptor findings_;
    Demo::TreeState original_;
    std::map<std::string, std::string> bystander_;
    std::vector<pid_t> running_;
};

using SeededAttack = Attack;

TEST_P(SeededAttack, InAnyOrderAndAtOnce_SiteAndBystanderAreAsBefore) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    Protect();
    struct stat copy {};
    ASSERT_EQ(::lstat((backup_.Path() + ground_.Page("index.html")).c_str(), &copy), 0);
    EXPECT_EQ(copy.st_uid, kAttacker);

    const std::string backup = backup_.Path();
    const pid_t agent = agent_.Pid();
    const std::array<Act, 6> acts = {[](Attacker& it) { it.TamperWithOddNames(); },
                                     [](Attacker& it) { it.SwapLinksAtEveryLevel(); },
                                     [](Attacker& it) { it.ChangeKinds(); },
                                     [](Attacker& it) { it.LinkFiles(); },
                                     [](Attacker& it) { it.ImitateTheAgent(); },
                                     [&](Attacker& it) { it.ReachForTheCopies(backup, agent); }};
    constexpr std::size_t kAttackers = 3;
    std::vector<std::size_t> order(acts.size());
    for (std::size_t at = 0; at < order.size(); ++at) order[at] = at;
    Random random(GetParam());
    std::shuffle(order.begin(), order.end(), random);
    std::vector<pid_t> attackers;
    for (std::size_t attacker = 0; attacker < kAttackers; ++attacker) {
        attackers.push_back(Begin(random(), [&](Attacker& it) {
            for (int round = 0; round < 2; ++round) {
                for (std::size_t at = attacker; at < order.size(); at += kAttackers) {
                    acts[order[at]](it);
                }
            }
        }));
    }
    for (const pid_t attacker : attackers) AwaitEnd(attacker);
    ExpectAllAsBefore();
    // It was no sham.
    const Json::Value counters = agent_.Status()["counters"];
    EXPECT_GE(counters["restores_done"].asInt(), 50) << counters;
    EXPECT_GE(counters["planted_links_removed"].asInt(), 1) << counters;
    AwaitEnd(Begin(random(), [](Attacker& it) { it.ReplaceTheSite(); }));
    ExpectAllAsBefore();
    EXPECT_TRUE(Await([&] { return PathStatus()["problem"].asString().empty(); })) << PathStatus();
    EXPECT_EQ(agent_.Stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SeededAttack, testing::Values(1U, 2U, 3U));

TEST_F(Attack, NameInAShell_WouldLeaveAMark) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    const std::string name = ground_.Names().front();
    (void)std::system(("exec 2>/dev/null; " + name).c_str());
    EXPECT_FALSE(fs::is_empty(ground_.Markers()));
}

TEST_F(Attack, PathThatIsLedElsewhere_IsToldAndNotFollowedUntilItLeadsBack) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    Protect();
    Do([](Attacker& it) { it.Expect(it.LeadAstray(), "cannot swap"); });
    Do([](Attacker& it) { it.Deface("index.html"); });
    EXPECT_TRUE(Await([&] { return !PathStatus()["problem"].asString().empty(); })) << PathStatus();
    EXPECT_TRUE(Await([&] {
        return agent_.Ctl({"alarms"}).out.find("not protected: ") != std::string::npos;
    })) << agent_.Ctl({"alarms"}).out;
    ExpectNothingWon();
    Do([](Attacker& it) { it.LeadBack(); });
    ExpectAllAsBefore();
    EXPECT_TRUE(Await([&] { return PathStatus()["problem"].asString().empty(); })) << PathStatus();
    EXPECT_TRUE(Await([&] {
        Do([](Attacker& it) { it.Deface("style.css"); });
        return test::WaitFor([&] { return IsRestored("style.css"); }, test::Scaled(2s));
    }));
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Attack, WhatCannotBeCopied_LeavesThePagesProtected) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    // What rsync makes of the vast file must not fill the disk of whoever runs the test.
    agent_.RunBehind({"/usr/bin/prlimit", "--fsize=16777216"});
    Do([](Attacker& it) {
        it.DigBeyondPaths();
        it.TruncateToTenTerabytes();
    });
    const pid_t leasing = Begin(1, [](Attacker& it) {
        it.HoldLease();
        for (;;) it.ComeAndGo();
    });
    ASSERT_GT(leasing, 0);
    ASSERT_TRUE(Await([&] { return fs::exists(ground_.Page("cc-gone.html")); }));
    ASSERT_TRUE(agent_.Start());
    ASSERT_EQ(agent_.Apply(Policy()), 0);
    // Nor can all of that be watched.
    ASSERT_TRUE(Await([&] {
        return PathStatus()["state"] == "degraded" &&
               PathStatus()["open_objects"]["count"].asInt() > 0 &&
               !agent_.Status()["backup"]["local_pending"].asBool();
    })) << agent_.Status();
    EXPECT_GE(PathStatus()["open_objects"]["count"].asInt(), 3) << PathStatus();
    for (const char* page : kPages) {
        Do([&](Attacker& it) { it.Deface(page); });
        EXPECT_TRUE(Await([&] { return IsRestored(page); })) << page << agent_.Status();
    }
    ExpectNothingWon();
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Attack, LinkThatIsAppendedToAllTheTime_CostsLittleAndThePageComesBack) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
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
    Do([](Attacker& it) { it.AppendToLinksFor(3s); });
    EXPECT_LT(cpu_ms() - before, test::Scaled(1200ms).count());
    ExpectAllAsBefore();
    EXPECT_EQ(agent_.Stop(), 0);
}

TEST_F(Attack, SparseFilesOfManyGigabytes_DoNotHoldUpAPage) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    Protect();
    const auto begin = Clock::now();
    Do([](Attacker& it) {
        it.PlantSparseFiles(10);
        it.Deface("index.html");
    });
    EXPECT_TRUE(Await([&] { return IsRestored("index.html"); }));
    EXPECT_LT(Clock::now() - begin, test::Scaled(5s));
    ExpectAllAsBefore();
    EXPECT_EQ(agent_.Stop(), 0);
}

}  // namespace
