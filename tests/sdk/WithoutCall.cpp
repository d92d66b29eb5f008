#include "WithoutCall.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace test {

namespace {

/// The call `number` fails with `error` where its argument has one of the bits `mask`.
struct Rule {
    unsigned number;
    unsigned argument;
    unsigned mask;  // 0: always
    unsigned error;
};

Rule RuleOf(Call call) {
    switch (call) {
        case Call::kNamelessFile:
            return {SYS_openat, 2, O_TMPFILE & ~O_DIRECTORY, EOPNOTSUPP};
        case Call::kLinkOfDescriptor:
            return {SYS_linkat, 4, AT_EMPTY_PATH, ENOENT};
        case Call::kExchange:
            return {SYS_renameat2, 4, RENAME_EXCHANGE, EINVAL};
        case Call::kNoAtime:
            return {SYS_openat, 2, O_NOATIME, EPERM};
        case Call::kCopyFileRange:
            break;
    }
    return {SYS_copy_file_range, 0, 0, EXDEV};
}

bool Install(const Rule& rule) {
    const auto argument = static_cast<unsigned>(offsetof(seccomp_data, args) + 8 * rule.argument);
    const auto number = static_cast<unsigned>(offsetof(seccomp_data, nr));
    const unsigned char always = rule.mask == 0 ? 1 : 0;
    std::array<sock_filter, 6> filter{{
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, number},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, rule.number},
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, argument},
        {BPF_JMP | BPF_JSET | BPF_K, 0, 1, rule.mask},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | rule.error},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    }};
    filter[3].jf = static_cast<unsigned char>(1 - always);
    const sock_fprog program{filter.size(), filter.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

int ActWithout(Call call, int (*act)(const std::string& argument), const std::string& argument) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(Install(RuleOf(call)) ? act(argument) : 255);
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status) == 255 ? -1 : WEXITSTATUS(status);
}

}  // namespace test
