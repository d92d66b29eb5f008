#include "SentrelModule.h"
#include "fixtures/FakeTasks.h"
#include "fixtures/Installation.h"

namespace {

using Poco::Message;

class Credentials : public ::testing::Test {
  protected:
    mode_t Mode(const std::string& name) const {
        struct stat info {};
        ::stat(install_.dir.Path(name).c_str(), &info);
        return info.st_mode & 07777;
    }
    test::Installation install_;
    test::RunningEngine running_{install_.log};
    Engine::SentrelModule module_;
};

TEST_F(Credentials, Passwords_AreWrittenWithMode0500) {
    EXPECT_EQ(module_.GetPasswdServer(R"({"passwd":"s3cret"})"), 0);
    EXPECT_EQ(module_.GetPasswdClient(R"({"passwd":"old"})"), 0);
    EXPECT_EQ(module_.GetPasswdClient(R"({"passwd":"s3cret"})"), 0);
    EXPECT_EQ(test::TempDir::Read(install_.dir.Path("conf/rsync_server.secrets")),
              "morvane_agent:s3cret");
    EXPECT_EQ(test::TempDir::Read(install_.dir.Path("conf/rsync_client.secrets")), "s3cret");
    EXPECT_EQ(Mode("conf/rsync_server.secrets"), 0500U);
    EXPECT_EQ(Mode("conf/rsync_client.secrets"), 0500U);
    EXPECT_EQ(install_.Debugs("rsyslog write pass [" +
                              install_.dir.Path("conf/rsync_server.secrets") + "] ok."),
              1);
    EXPECT_EQ(install_.log.Sources(), std::set<std::string>{"SentrelModule.cpp"});
    for (const auto& record : install_.log.Records()) {
        EXPECT_EQ(record.text.find("s3cret"), std::string::npos);
    }
}

TEST_F(Credentials, BadRequests_WriteNothing) {
    install_.dir.Write("conf/rsync_client.secrets", "kept");
    EXPECT_EQ(module_.GetPasswdClient(""), -1);
    EXPECT_EQ(module_.GetPasswdClient("{\"passwd\":"), -1);
    EXPECT_EQ(module_.GetPasswdClient(R"({"passwd":""})"), 0);
    EXPECT_EQ(module_.GetPasswdClient(R"({"passwd":7})"), 0);
    const std::string mebibyte(1024 * 1024, 'x');
    EXPECT_EQ(module_.GetPasswdClient(mebibyte), -1);
    EXPECT_EQ(module_.GetPasswdClient("{\"passwd\":\"" + mebibyte), -1);
    EXPECT_EQ(module_.GetPasswdClient("{\"other\":\"" + mebibyte + "\"}"), 0);
    EXPECT_EQ(test::TempDir::Read(install_.dir.Path("conf/rsync_client.secrets")), "kept");
    std::filesystem::remove_all(install_.dir.Path("conf"));
    EXPECT_NE(module_.GetPasswdClient(R"({"passwd":"x"})"), 0);
    EXPECT_EQ(install_.Errors("rsyslog write [" + install_.dir.Path("conf/rsync_client.secrets") +
                              "] failed."),
              1);
}

}  // namespace
