#include <framework/ConfigManager.h>
#include <sdk/files/PathUtils.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <vector>

#include "fixtures/Installation.h"
#include "utils/SentrelUtils.h"

namespace {

namespace fs = std::filesystem;
using Engine::SentrelUtils;
using Words = std::vector<std::string>;
using Strings = std::list<std::string>;

/// Names with every possible byte, and names that could be commands, options or hosts.
std::vector<std::string> Names() {
    std::istringstream list(
        "x;echo b64|base64 -d|sh;y.html\t-e\t--rsh=x\t$(id)\t`id`\ta b c\thost:x\thost::x\t\"a\" "
        "b\t"
        "x\nrm -rf y\t \ta  b\t\\\"\t-- -x\t''");
    std::vector<std::string> names;
    for (std::string name; std::getline(list, name, '\t');) names.push_back(name);
    for (int byte = 1; byte < 256; ++byte) {
        if (byte % 8 == 1) names.emplace_back("a");
        if (byte != '/') names.back() += static_cast<char>(byte);
    }
    return names;
}

/// The module's commands with a stand-in for rsync that records its arguments.
class CommandNames : public ::testing::Test {
  protected:
    CommandNames() { Install(install_.dir.Path()); }

    void Install(const std::string& path) {
        bin_ = path + "/bin/rsync";
        fs::create_directories(path + "/bin");
        fs::create_symlink(SENTREL_RECORD_PROGRAM, bin_);
        SDK::PathUtils::SetInstallationPath(path);
        utils_->install_path = path + "/";
    }
    /// The recorded calls since the last TakeCalls.
    std::string TakeCalls() {
        std::string calls = test::TempDir::Read(bin_ + ".calls");
        fs::remove(bin_ + ".calls");
        return calls;
    }
    static std::string Call(const Words& words) {
        std::string call;
        for (const std::string& word : words) call.append(word).push_back('\0');
        return call + "\n";
    }
    Words Local(const Strings& patterns, const Words& rest) const {
        Words words{bin_, "-az", "-H", "-X", "--links", "--delete-excluded", "--temp-dir=/tmp"};
        for (const std::string& pattern : patterns) {
            words.insert(words.end(), {"--exclude", pattern});
        }
        words.insert(words.end(), rest.begin(), rest.end());
        return words;
    }
    /// Makes the backup copy of `path` in `backup`.
    void MakeCopy(const std::string& backup, const std::string& path) const {
        const std::string copy = backup + path;
        fs::create_directories(fs::path(copy).parent_path());
        if (::mkdir((copy + ".d").c_str(), 0700) != 0 || ::mknod(copy.c_str(), S_IFREG, 0) != 0) {
            ADD_FAILURE() << copy;
        }
    }
    /// The restore runs with the words `meant`, and the log has the command line.
    void ExpectRestore(const std::string& path, const std::string& backup, const Words& meant) {
        install_.log.Clear();
        EXPECT_TRUE(utils_->DoRsyncLocal(path, backup, {}, {}, Engine::RSYNC_RESTORE)) << path;
        EXPECT_EQ(TakeCalls(), Call(meant)) << path;
        EXPECT_EQ(install_.Debugs("Exec cmd [" + bin_ +
                                  " -az -H -X --links --delete-excluded --temp-dir=/tmp " +
                                  meant[7] + " " + meant[8] + " ] sucess."),
                  1)
            << path;
    }

    test::Installation install_;
    SentrelUtils* utils_ = SentrelUtils::GetInstance();
    test::TempDir data_;
    std::string bin_;
};

TEST_F(CommandNames, Restores_PassEachNameUnchanged) {
    const std::string backup = data_.Path("backup");
    for (const std::string& name : Names()) {
        const std::string file = "/site/" + name + "/" + name;
        const std::string directory = file + ".d";
        MakeCopy(backup, file);
        ExpectRestore(file, backup, Local({}, {backup + file, file}));
        ExpectRestore(directory, backup, Local({}, {backup + directory + "/", directory + "/"}));
    }
}

TEST_F(CommandNames, BackupsAndPushes_PassEachNameUnchanged) {
    Framework::ConfigManager::GetInstance().SetAgentId("agent-1");
    utils_->backup_addr = "10.0.0.9";
    for (const std::string& name : Names()) {
        const std::string path = "/site/" + name;
        const std::string backup = "/backup/" + name + "/";
        EXPECT_TRUE(utils_->DoRsyncLocal(path, backup, {name}, {}, Engine::RSYNC_BACKUP));
        EXPECT_EQ(TakeCalls(), Call(Local({"*" + name}, {"-R", path, backup}))) << name;
        EXPECT_TRUE(utils_->DoRsyncRemote(path, Engine::RSYNC_BACKUP));
        EXPECT_EQ(TakeCalls(),
                  Call({bin_, "-az", "-H", "-X", "-R", "--links", "--delete-excluded",
                        "--password-file=" + install_.Path() + "conf/rsync_client.secrets", path,
                        "morvane_agent@10.0.0.9::morvane_agent/agent-1"}))
            << name;
    }
    Framework::ConfigManager::GetInstance().SetAgentId("");
}

TEST_F(CommandNames, InstallationPathsWithSpecialCharacters_Work) {
    Framework::ConfigManager::GetInstance().SetAgentId("agent-1");
    for (const char* name :
         {"my agent", "a;touch b", "$HOME", "it's", "a\"b", "a\nb", "x=y", "~"}) {
        SCOPED_TRACE(name);
        const std::string install = data_.Path(std::string("first ") + name);
        // The program that a shell or a split of the path would run.
        const std::string mark = data_.Path("ran");
        data_.Write("first", "#!/bin/sh\ntouch " + mark);
        ::chmod(data_.Path("first").c_str(), 0755);
        Install(install);
        const std::string conf = install + "/conf/morvane_rsync.conf";
        EXPECT_TRUE(utils_->RunRsyncDaemon(conf));
        EXPECT_EQ(TakeCalls(), Call({bin_, "--daemon", "--config=" + conf}));
        EXPECT_EQ(install_.Debugs("Exec cmd [" + bin_ + " --daemon --config=" + conf + "] sucess."),
                  1);
        EXPECT_TRUE(utils_->DoRsyncLocal("/a", "/b", {}, {}, Engine::RSYNC_BACKUP));
        EXPECT_EQ(TakeCalls(), Call(Local({}, {"-R", "/a", "/b"})));
        EXPECT_TRUE(utils_->DoRsyncRemote("/a", Engine::RSYNC_BACKUP));
        EXPECT_NE(TakeCalls(), "");
        MakeCopy(data_.Path("backup"), install + "/page");
        EXPECT_TRUE(utils_->DoRsyncLocal(install + "/page", data_.Path("backup"), {}, {},
                                         Engine::RSYNC_RESTORE));
        EXPECT_EQ(TakeCalls(),
                  Call(Local({}, {data_.Path("backup") + install + "/page", install + "/page"})));
        EXPECT_FALSE(fs::exists(mark));
    }
    Framework::ConfigManager::GetInstance().SetAgentId("");
}

TEST_F(CommandNames, RelativeAndTruncatedPaths_AreRejected) {
    const std::string nul("/a\0b", 4);
    for (const std::string& path : {std::string("--rsh=x"), std::string("host:/x"),
                                    std::string("rsync://h/m"), std::string(), nul}) {
        EXPECT_FALSE(utils_->DoRsyncLocal(path, "/b", {}, {}, Engine::RSYNC_BACKUP)) << path;
        EXPECT_FALSE(utils_->DoRsyncLocal("/a", path, {}, {}, Engine::RSYNC_BACKUP)) << path;
        EXPECT_NE(utils_->LastCopyError(), "") << path;
    }
    EXPECT_EQ(TakeCalls(), "");
}

}  // namespace
