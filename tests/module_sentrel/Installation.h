#pragma once

#include <gtest/gtest.h>
#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sys/stat.h>

#include <filesystem>
#include <limits>
#include <string>

#include "ModuleLog.h"
#include "rsync/RsyncKeys.h"
#include "support/TempDir.h"
#include "utils/SentrelUtils.h"

namespace test {

/// An installation of its own for one test: conf/home as shipped, no rsync yet, and the module's
/// settings at their defaults. Commands find the stand-ins of `fake_bin` first.
class Installation {
  public:
    using Prio = Poco::Message;

    Installation() : log(*Engine::SentrelUtils::GetInstance()->GetLogger()) {
        std::filesystem::create_directories(dir.Path("bin"));
        std::filesystem::create_directories(dir.Path("conf/home"));
        std::filesystem::copy_file(SENTREL_POPT_FILE, dir.Path("conf/home/.popt"));
        SDK::PathUtils::SetInstallationPath(dir.Path());
        Engine::SentrelUtils* utils = Engine::SentrelUtils::GetInstance();
        utils->Init();
        utils->install_path = Path();
        WriteScript("fake/sudo", "[ \"$1\" = tee ] && cat >/dev/null\necho \"$@\" >>" +
                                     dir.Path("sudo.log") + "\n");
        SDK::ExecuteCmdUtils::SetSearchPath(dir.Path("fake") + ":/usr/bin:/bin");
    }
    ~Installation() {
        SDK::ExecuteCmdUtils::SetSearchPath("");
        SDK::PathUtils::SetInstallationPath("");
    }

    /// The installation path, ending in "/".
    std::string Path() const { return dir.Path() + "/"; }

    std::string WriteScript(const std::string& name, const std::string& body) const {
        const std::string path = dir.Write(name, "#!/bin/sh\n" + body);
        ::chmod(path.c_str(), 0755);
        return path;
    }

    /// A bin/rsync that notes each call's arguments, one call a line, then runs `body`.
    void UseRecordingRsync(const std::string& body = "") const {
        WriteScript("bin/rsync", "[ \"$1\" = --version ] && exit 0\nprintf '<%s>' \"$@\" >>" +
                                     dir.Path("rsync.log") + "\necho >>" + dir.Path("rsync.log") +
                                     "\n" + body);
    }
    std::string RsyncCalls() const { return TempDir::Read(dir.Path("rsync.log")); }

    void UseRealRsync() const {
        std::filesystem::copy_file(RealRsync(), dir.Path("bin/rsync"),
                                   std::filesystem::copy_options::overwrite_existing);
    }

    static std::string RealRsync() { return "/usr/bin/rsync"; }
    static std::string DigestOf(const std::string& path) {
        std::string digest;
        SDK::FileUtils::GetFileSha256(path, digest, std::numeric_limits<long>::max());
        return digest;
    }

    /// A protection policy with that rsync as the download and no path yet.
    static Json::Value Policy(const std::string& rsync = RealRsync()) {
        const Engine::RsyncKeys keys = Engine::RsyncKeys::OfThisHost();
        Json::Value policy(Json::objectValue);
        policy["enabled"] = true;
        policy["content"]["os_type"] = 0;
        policy["content"][keys.url] = "file://" + rsync;
        policy["content"][keys.hash] = DigestOf(rsync);
        return policy;
    }
    static Json::Value Entry(const std::string& filepath, const std::string& backup_path) {
        Json::Value entry(Json::objectValue);
        entry["enable"] = true;
        entry["auto_restore"] = true;
        entry["filepath"] = filepath;
        entry["backup_path"] = backup_path;
        return entry;
    }

    // How often exactly this was logged.
    long Debugs(const std::string& text) const { return log.Count(Prio::PRIO_DEBUG, text); }
    long Infos(const std::string& text) const { return log.Count(Prio::PRIO_INFORMATION, text); }
    long Errors(const std::string& text) const { return log.Count(Prio::PRIO_ERROR, text); }
    long Traces(const std::string& text) const { return log.Count(Prio::PRIO_TRACE, text); }

    TempDir dir;
    ModuleLog log;
};

inline std::string Text(const Json::Value& value) {
    return SDK::JsonUtils::JsonToString(value);
}

}  // namespace test
