#include <gtest/gtest.h>
#include <notify/Senders.h>
#include <sdk/text/Hmac.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/time/CommandInterrupter.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>

#include "support/HttpReceiver.h"
#include "support/TempDir.h"

namespace {

const Notify::Message kTest = Notify::TestMessage({"www1", "0f0e", "1.2.3"}, 1763714260250);

class Senders : public testing::Test {
  protected:
    std::string Script(const std::string& name, const std::string& text) {
        const std::string file = dir_.Write(name, "#!/bin/sh\n" + text);
        ::chmod(file.c_str(), 0755);
        return file;
    }
    test::TempDir dir_;
};

TEST_F(Senders, Webhook_IsSignedWithItsTime) {
    test::HttpReceiver receiver;
    Notify::Settings::Webhook webhook{receiver.Url("/hook?token=t"), dir_.Write("secret", "key\n"),
                                      ""};
    const auto sender = Notify::MakeWebhookSender(webhook);
    EXPECT_NE(sender->Send(kTest).find("read by others"), std::string::npos);
    ::chmod(webhook.secret_file.c_str(), 0600);
    EXPECT_EQ(sender->Send(kTest), "");
    const auto requests = receiver.Requests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].uri, "/hook?token=t");
    const std::string time = requests[0].header.get("X-Sentrel-Timestamp");
    EXPECT_EQ(requests[0].header.get("X-Sentrel-Signature"),
              "sha256=" + SDK::HmacSha256("key", time + "." + requests[0].body));
    EXPECT_EQ(requests[0].header.get("X-Sentrel-Id"), kTest.id);
    Json::Value body;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(requests[0].body.data(), requests[0].body.size(), body),
              0);
    EXPECT_EQ(body["kind"], "test");
    // RFC 4231, case 2.
    EXPECT_EQ(SDK::HmacSha256("Jefe", "what do ya want for nothing?"),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST_F(Senders, WebhookRefusalsAndRedirects_AreFailuresThatHideTheAddress) {
    test::HttpReceiver receiver;
    const auto sender = Notify::MakeWebhookSender({receiver.Url("/token"), "", ""});
    for (const int status : {302, 404, 500}) {
        receiver.Answer(status);
        const std::string error = sender->Send(kTest);
        EXPECT_NE(error.find(std::to_string(status)), std::string::npos) << error;
        EXPECT_EQ(error.find("token"), std::string::npos) << error;
    }
    EXPECT_EQ(receiver.Requests().size(), 3U) << "no redirect was followed";
    const auto nobody = Notify::MakeWebhookSender({"http://127.0.0.1:1/token", "", ""});
    EXPECT_EQ(nobody->Send(kTest).rfind("http://127.0.0.1:1: ", 0), 0U);
}

TEST_F(Senders, Mail_ReachesTheProgramAsItIs) {
    const std::string program =
        Script("sendmail", "cat > " + dir_.Path("mail") + "\necho \"$@\" > " + dir_.Path("words"));
    const auto sender =
        Notify::MakeMailSender({{"a@example.org", "b@example.org"}, "s@example.org", program});
    EXPECT_EQ(sender->Send(kTest), "");
    EXPECT_EQ(test::TempDir::Read(dir_.Path("words")),
              "-i -f s@example.org -- a@example.org b@example.org\n");
    const std::string mail = test::TempDir::Read(dir_.Path("mail"));
    EXPECT_EQ(mail.rfind("From: s@example.org\nTo: a@example.org,\n b@example.org\nSubject: ", 0),
              0U)
        << mail;
    EXPECT_NE(mail.find("Nothing has happened"), std::string::npos);
}

TEST_F(Senders, MailProgramThatFails_SaysWhy) {
    EXPECT_NE(Notify::MakeMailSender({{"root"}, "", Script("full", "echo disk full >&2; exit 75")})
                  ->Send(kTest)
                  .find("ended with code 75: disk full"),
              std::string::npos);
    EXPECT_NE(Notify::MakeMailSender({{"root"}, "", "/no/sendmail"})->Send(kTest).find("started"),
              std::string::npos);
    SDK::CommandInterrupter interrupter;
    const SDK::CommandInterrupter::Scope scope(interrupter);
    interrupter.Interrupt();
    EXPECT_NE(Notify::MakeMailSender({{"root"}, "", Script("slow", "sleep 60")})
                  ->Send(kTest)
                  .find("interrupted"),
              std::string::npos);
}

TEST_F(Senders, Records_ArriveAsDatagramsOrLines) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = dir_.Path("log");
    path.copy(address.sun_path, path.size());
    const auto sender = Notify::MakeSocketSender(path);
    EXPECT_NE(sender->Send({"one"}), "");
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(sender->Send({"one", "two"}), "");
    for (const std::string wanted : {"one", "two"}) {
        std::array<char, 16> got{};
        ASSERT_EQ(::recv(socket, got.data(), got.size(), 0), 3);
        EXPECT_EQ(got.data(), wanted);
    }
    ::close(socket);
    const auto file = Notify::MakeFileSender(dir_.Path("ocsf"));
    EXPECT_EQ(file->Send({"one", "two"}), "");
    EXPECT_EQ(file->Send({"three"}), "");
    EXPECT_EQ(test::TempDir::Read(dir_.Path("ocsf")), "one\ntwo\nthree\n");
    ASSERT_EQ(::symlink("/etc/hostname", dir_.Path("link").c_str()), 0);
    EXPECT_NE(Notify::MakeFileSender(dir_.Path("link"))->Send({"one"}), "");
}

TEST(NotifySettings, WrongKeys_SwitchTheirChannelOff) {
    const auto read = [](const std::string& text, Notify::Settings& settings) {
        Json::Value section;
        SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), section);
        std::vector<Notify::SettingsFault> faults;
        settings = Notify::ReadSettings(section, faults);
        return faults.empty() ? "" : faults[0].channel + " " + faults[0].text;
    };
    Notify::Settings settings;
    for (const auto& [text, fault] : std::vector<std::pair<std::string, std::string>>{
             {R"({"webhook":{"url":"http://example.org/"}})", "webhook /notify/webhook/url: "},
             {R"({"webhook":{"url":"ftp://127.0.0.1/"}})", "webhook /notify/webhook/url: "},
             {R"({"webhook":{"url":"https://a/","secret_file":"/none"}})",
              "webhook /notify/webhook/secret_file: "},
             {R"({"webhook":{"urls":""}})", "webhook /notify/webhook/urls: unknown"},
             {R"({"mail":{"to":"-bs"}})", "mail /notify/mail/to: "},
             {R"({"mail":{"to":["a@b","c d@e"]}})", "mail /notify/mail/to: "},
             {R"({"mail":{"to":["a@b\nBcc: c"]}})", "mail /notify/mail/to: "},
             {R"({"mail":{"to":"root","sendmail":"sendmail"}})", "mail /notify/mail/sendmail: "},
             {R"({"heartbeat":{"url":"https://a/","seconds":1}})",
              "heartbeat /notify/heartbeat/seconds: "},
             {R"({"syslog":1})", "syslog /notify/syslog: "},
             {R"({"most_per_hour":0})", " /notify/most_per_hour: "}}) {
        EXPECT_EQ(read(text, settings).rfind(fault, 0), 0U) << text << ": " << read(text, settings);
        EXPECT_TRUE(settings.webhook.url.empty() && settings.mail.to.empty() &&
                    settings.heartbeat.url.empty() && settings.syslog.empty())
            << text;
    }
    EXPECT_EQ(read(R"({"webhook":{"url":"https://a/x"},"mail":{"to":"root"},"syslog":true,
                       "journald":true,"ocsf":"/var/log/o","most_per_hour":5})",
                   settings),
              "");
    EXPECT_EQ(settings.webhook.url, "https://a/x");
    EXPECT_EQ(settings.mail.to, std::vector<std::string>{"root"});
    EXPECT_EQ(settings.syslog, "/dev/log");
    EXPECT_EQ(settings.most_per_hour, 5);
}

}  // namespace
