// Knows how the rsync daemon's unit is closed. It must not decide when the daemon runs
// (BackUpServerTask does).
#include "rsync/DaemonUnit.h"

#include <sdk/files/FileUtils.h>
#include <sdk/text/StrUtils.h>

#include <cstdlib>

namespace Engine {

namespace {

constexpr const char* kSystemdRun = "/usr/bin/systemd-run";
constexpr long kMaxCgroupFile = 65536;

// CHOWN to SETFCAP give received files their owners, modes and attributes; the others bind port
// 873, shut each connection in backupserver_path and change its user and groups.
constexpr const char* kProperties[] = {
    "Type=forking",
    "KillMode=mixed",
    "UMask=0077",
    "LimitCORE=0",
    "CapabilityBoundingSet=CAP_CHOWN CAP_DAC_OVERRIDE CAP_FOWNER CAP_FSETID CAP_SETFCAP",
    "CapabilityBoundingSet=CAP_NET_BIND_SERVICE CAP_SYS_CHROOT CAP_SETGID CAP_SETUID",
    "NoNewPrivileges=yes",
    "ProtectSystem=strict",
    "ProtectHome=read-only",
    "PrivateTmp=no",  // backupserver_path may lie in /tmp
    "PrivateDevices=yes",
    "ProtectKernelTunables=yes",
    "ProtectKernelModules=yes",
    "ProtectKernelLogs=yes",
    "ProtectControlGroups=yes",
    "ProtectClock=yes",
    "ProtectHostname=yes",
    "ProtectProc=invisible",
    "RestrictNamespaces=yes",
    "RestrictRealtime=yes",
    "LockPersonality=yes",
    "MemoryDenyWriteExecute=yes",
    "KeyringMode=private",
    "RestrictAddressFamilies=AF_INET AF_INET6",
    "SystemCallArchitectures=native",
    "SystemCallFilter=@system-service chroot",
    "SystemCallErrorNumber=EPERM",
    // Its lock file lies there, beside what steers the system.
    "ReadWritePaths=-/run",
    "ReadOnlyPaths=-/run/systemd -/run/dbus -/run/user -/run/udev",
};

/// systemd splits lists of paths at blanks and takes backslashes and quotes for its own.
std::string Quoted(const std::string& path) {
    std::string text = "\"";
    for (const char c : path) {
        if (c == '"' || c == '\\') text += '\\';
        text += c;
    }
    return text + '"';
}

}  // namespace

std::string DaemonUnit::ConfiguredName() {
    const char* const name = std::getenv(kVariable);
    return name == nullptr ? "" : name;
}

std::vector<std::string> DaemonUnit::StartCommand(const Request& request) {
    std::vector<std::string> words = {kSystemdRun, "--quiet", "--collect", "--unit=" + request.name,
                                      "--description=Sentrel: rsync daemon of the backup server"};
    const auto add = [&words](const std::string& property) {
        words.push_back("--property=" + property);
    };
    for (const char* const property : kProperties) add(property);
    add("PIDFile=" + request.pid_file);
    for (const std::string& path : request.writable) add("ReadWritePaths=-" + Quoted(path));
    if (!request.owner.empty()) {
        add("BindsTo=" + request.owner);
        add("After=" + request.owner);
    }
    words.emplace_back("--");
    words.insert(words.end(), request.daemon.begin(), request.daemon.end());
    return words;
}

std::string DaemonUnit::OwnService() {
    std::string text;
    if (SDK::FileUtils::ReadFile("/proc/self/cgroup", text, kMaxCgroupFile) != 0) return "";
    const std::size_t line = text.rfind("0::");
    if (line == std::string::npos) return "";
    std::string path = text.substr(line, text.find('\n', line) - line);
    std::string name = path.substr(path.rfind('/') + 1);
    return SDK::StrUtils::EndsWith(name, ".service") ? name : "";
}

}  // namespace Engine
