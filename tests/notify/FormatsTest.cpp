#include <gtest/gtest.h>
#include <notify/Formats.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <sstream>

#include "support/AlarmReports.h"

namespace {

using Notify::Message;

constexpr long long kNowMs = 1763714260250;  // 2025-11-21T08:37:40.250Z
const Notify::Origin kOrigin{"www1", "0f0e", "1.2.3"};

/// Each is a name that a site's user can choose, or what is left of it in the alarm.
const char* const kHostile[] = {"/srv/a\nBcc: victim@example.org\n\nforged",
                                "/srv/a\r\n.\r\nforged",
                                "/srv/\xe2\x80\xae"
                                "fdp.exe",
                                "/srv/\x1b[2J",
                                "/srv/a\"] forged=\"1",
                                "/srv/\xff\xfe",
                                "/srv/m\xc3\xbcnchen/\xe2\x82\xac"};

Message MessageOf(const std::string& path) {
    Message message;
    message.id = "0f0e-1-1";
    message.origin = kOrigin;
    message.sent_ms = kNowMs;
    message.changes = 1;
    const Json::Value report = test::AlarmReport(1, kNowMs, "modify", path, "restored");
    Notify::Incidents incidents({}, 0, false);
    incidents.Add(Notify::ReadAlarm(report), Json::Value());
    message.incidents.assign(incidents.Kept().begin(), incidents.Kept().end());
    return message;
}

TEST(MailFormat, OneChange_SaysAllAboutIt) {
    EXPECT_EQ(Notify::FormatMail(MessageOf("/srv/www/index.html"), {"a@example.org", "root"}, ""),
              "To: a@example.org,\n root\n"
              "Subject: [Sentrel] www1: 1 change in /srv/www/index.html: 1 restored\n"
              "Date: Fri, 21 Nov 2025 08:37:40 +0000\n"
              "Message-ID: <0f0e-1-1@sentrel.invalid>\n"
              "Auto-Submitted: auto-generated\nMIME-Version: 1.0\n"
              "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n"
              "Sentrel on www1 saw 1 change of protected paths.\n\n"
              "2025-11-21T08:37:40.250Z  1 change in /srv/www/index.html\n"
              "    1 modify; 1 restored\n"
              "    - modify /srv/www/index.html: restored in 2.5 ms\n\n"
              "All alarms, with what was changed: morvanectl alarms --all --diff\n");
}

TEST(MailFormat, HostileNames_ForgeNoHeaderAndNoLine) {
    const std::string plain = Notify::FormatMail(MessageOf("/srv/a"), {"root"}, "");
    for (const std::string name : kHostile) {
        const std::string mail = Notify::FormatMail(MessageOf(name), {"root"}, "");
        const std::string header = mail.substr(0, mail.find("\n\n") + 1);
        std::istringstream lines(header);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_TRUE(line[0] == ' ' || plain.find(line.substr(0, line.find(':') + 1)) == 0 ||
                        plain.find("\n" + line.substr(0, line.find(':') + 1)) != std::string::npos)
                << line;
            EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char c) {
                return c >= 0x20 && c < 0x7f;
            })) << line;
        }
        EXPECT_EQ(std::count(mail.begin() + static_cast<long>(header.size()), mail.end(), '\n'),
                  std::count(plain.begin() + static_cast<long>(plain.find("\n\n") + 1), plain.end(),
                             '\n'))
            << mail;
        EXPECT_EQ(mail.find("\nforged"), std::string::npos);
        for (const char* raw : {"\r", "\x1b", "\xe2\x80\xae", "\xff"}) {
            EXPECT_EQ(mail.find(raw), std::string::npos) << mail;
        }
        EXPECT_EQ(mail.find("secret of the page"), std::string::npos);
    }
}

TEST(MailFormat, LongNames_StayInShortLines) {
    const std::string mail =
        Notify::FormatMail(MessageOf("/srv/" + std::string(4000, 'a')), {"root"}, "");
    std::istringstream lines(mail);
    for (std::string line; std::getline(lines, line);) EXPECT_LT(line.size(), 998U);
    const std::string umlauts = "/srv/" + [] {
        std::string text;
        for (int at = 0; at < 60; ++at) text += "\xc3\xbc";
        return text;
    }();
    const std::string encoded = Notify::FormatMail(MessageOf(umlauts), {"root"}, "");
    EXPECT_NE(encoded.find("Subject: =?UTF-8?B?"), std::string::npos);
    EXPECT_NE(encoded.find("?=\n =?UTF-8?B?"), std::string::npos);
    EXPECT_NE(encoded.find("    - modify " + umlauts), std::string::npos);
}

TEST(RecordFormats, HostileNames_StayInOneRecord) {
    for (const std::string name : kHostile) {
        const Json::Value report = test::AlarmReport(7, kNowMs, "modify", name, "removal failed");
        const std::string line = Notify::FormatSyslog(kOrigin, report);
        EXPECT_EQ(line.rfind("<107>1 2025-11-21T08:37:40.250Z www1 morvane_agent - alarm "
                             "[alarm@32473 seq=\"7\" agent=\"0f0e\" action=\"modify\" path=\"",
                             0),
                  0U)
            << line;
        EXPECT_TRUE(std::none_of(line.begin(), line.end(), [](char c) {
            return static_cast<unsigned char>(c) < 0x20;
        })) << line;
        const bool is_quoted = name.find('"') != std::string::npos;
        EXPECT_EQ(line.find(R"(path="/srv/a\"\] forged=\"1" )") != std::string::npos, is_quoted);
        Json::Value event;
        const std::string ocsf = Notify::FormatOcsf(kOrigin, report);
        ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(ocsf.data(), ocsf.size(), event), 0) << ocsf;
        EXPECT_EQ(ocsf.find('\n'), std::string::npos);
        EXPECT_EQ(event["type_uid"].asInt(), 100103);
        EXPECT_EQ(event["time"].asInt64(), kNowMs);
        EXPECT_EQ(event["disposition_id"].asInt(), 13);
        EXPECT_EQ(event["file"]["path"].asString(), Notify::ReadAlarm(report).path);
    }
    EXPECT_NE(Notify::FormatJournal(kOrigin, test::AlarmReport(7, kNowMs, "add", "/a\nB=1", "held"))
                  .find(std::string("SENTREL_PATH\n\x06\0\0\0\0\0\0\0/a\nB=1\n", 28)),
              std::string::npos);
    EXPECT_EQ(Notify::FormatSyslog(kOrigin, Json::Value(Json::objectValue)), "");
}

TEST(JsonFormat, Incident_HasCountsAndExamplesButNoContent) {
    const Json::Value object = Notify::ToJson(MessageOf("/srv/a\n"));
    EXPECT_EQ(object["kind"], "incident");
    EXPECT_EQ(object["id"], "0f0e-1-1");
    EXPECT_EQ(object["text"], "1 change in /srv/a\\n: 1 restored");
    const Json::Value& incident = object["incidents"][0];
    EXPECT_EQ(incident["changes"], 1);
    EXPECT_EQ(incident["outcomes"]["restored"], 1);
    EXPECT_EQ(incident["examples"][0]["path"], "/srv/a\n");
    EXPECT_EQ(incident["failed"], false);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(object).find("secret"), std::string::npos);
}

}  // namespace
