// Changes a file in the way that its first argument names. Descriptor 3 receives the number of the
// process that makes the change.
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr int kReport = 3;

void Tell(pid_t pid) {
    if (::write(kReport, &pid, sizeof(pid)) != sizeof(pid)) ::_exit(9);
}

void Write(const std::string& file) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0 || ::write(fd, "defaced", 7) != 7) ::_exit(8);
    ::close(fd);
}

void WriteMyself(const std::string& file) {
    Tell(::getpid());
    Write(file);
}

volatile bool has_written = false;

int Thread(void* file) {
    WriteMyself(*static_cast<std::string*>(file));
    has_written = true;
    return 0;
}

/// A file of the directory of pages, under a name that is no page's.
std::string Beside(const std::string& file) {
    return file + "." + std::to_string(::getpid());
}

void Play(const std::string& kind, std::string file) {
    if (kind == "write") return WriteMyself(file);
    if (kind == "rename") {
        Tell(::getpid());
        Write(Beside(file));
        ::rename(Beside(file).c_str(), file.c_str());
    } else if (kind == "exec-away") {
        WriteMyself(file);
        ::execl("/bin/true", "true", nullptr);
    } else if (kind == "double-fork") {
        if (::fork() != 0) ::_exit(0);
        if (::fork() != 0) ::_exit(0);
        WriteMyself(file);
    } else if (kind == "user") {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) return;
        WriteMyself(file);
    } else if (kind == "user-later") {
        WriteMyself(file);
        if (::setresuid(65534, 65534, 65534) != 0) ::_exit(7);
    } else if (kind == "effective-user") {
        if (::seteuid(65534) != 0) return;
        WriteMyself(file);
    } else if (kind == "namespace") {
        if (::unshare(CLONE_NEWPID | CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWUTS) != 0) return;
        int go[2];
        if (::pipe(go) != 0) return;
        const pid_t child = ::fork();
        char byte = 0;
        if (child == 0) {
            if (::read(go[0], &byte, 1) == 1) Write(file);
            ::_exit(0);
        }
        Tell(child);
        if (::write(go[1], &byte, 1) == 1) ::waitpid(child, nullptr, 0);
    } else if (kind == "thread") {
        static char stack[64 * 1024];
        const int flags = CLONE_VM | CLONE_FILES | CLONE_FS | CLONE_SIGHAND | CLONE_THREAD;
        ::clone(&Thread, stack + sizeof(stack), flags, &file);
        while (!has_written) ::sched_yield();
    } else if (kind == "remove") {
        Tell(::getpid());
        ::unlink(file.c_str());
    } else if (kind == "mode") {
        Tell(::getpid());
        ::chmod(file.c_str(), 0600);
    } else if (kind == "directory") {
        Tell(::getpid());
        ::mkdir((file + ".d").c_str(), 0777);
        Write(file + ".d/shell.php");
    } else if (kind == "daemon") {
        const int fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
        for (char byte = 0; ::read(STDIN_FILENO, &byte, 1) == 1;) {
            Tell(::getpid());
            if (::pwrite(fd, "defaced", 7, 0) != 7) ::_exit(8);
            Tell(::getpid());
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3) Play(argv[1], argv[2]);
    return argc == 3 ? 0 : 2;
}
