#include <ctl/Input.h>
#include <ctl/Terminal.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "support/TempDir.h"

namespace {

TEST(Printable, OrdinaryText_StaysAsItIs) {
    EXPECT_EQ(Ctl::Printable("/srv/site/index page.html"), "/srv/site/index page.html");
    EXPECT_EQ(Ctl::Printable("gr\xc3\xbc\xc3\x9f dich \xe4\xbd\xa0 \xf0\x9f\x98\x80"),
              "gr\xc3\xbc\xc3\x9f dich \xe4\xbd\xa0 \xf0\x9f\x98\x80");
    EXPECT_EQ(Ctl::Printable("a\tb", true), "a\tb");
}

TEST(Printable, WhatATerminalWouldObey_IsSpelledOut) {
    EXPECT_EQ(Ctl::Printable("a\x1b[2Jb\x07"), "a\\x1b[2Jb\\x07");
    EXPECT_EQ(Ctl::Printable("line\nbreak\r\t\x7f"), "line\\nbreak\\r\\t\\x7f");
    EXPECT_EQ(Ctl::Printable("\xc2\x9b"
                             "31m"),
              "\\u009b31m");  // C1 control
    EXPECT_EQ(Ctl::Printable("a\xe2\x80\xae"
                             "gpj.exe"),
              "a\\u202egpj.exe");  // right to left
    EXPECT_EQ(Ctl::Printable("a\xe2\x80\x8b"
                             "b\xef\xbb\xbf"),
              "a\\u200bb\\ufeff");  // invisible
    EXPECT_EQ(Ctl::Printable("a\\nb"), "a\\\\nb");
    EXPECT_EQ(Ctl::Printable(std::string("nul\0", 4)), "nul\\x00");
}

TEST(Printable, BytesThatAreNoUtf8_AreSpelledOut) {
    EXPECT_EQ(Ctl::Printable("\xff"
                             "a\xc3"),
              "\\xffa\\xc3");
    EXPECT_EQ(Ctl::Printable("\x9b"
                             "31m"),
              "\\x9b31m");
    EXPECT_EQ(Ctl::Printable("\xc0\x9b"), "\\xc0\\x9b");                    // overlong
    EXPECT_EQ(Ctl::Printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // surrogate
    EXPECT_EQ(Ctl::Printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // beyond Unicode
}

TEST(ShortTime, OtherDays_CarryTheirDate) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    constexpr long long kNoon = 1763726400000;  // 2025-11-21 12:00:00
    EXPECT_EQ(Ctl::ShortTime(kNoon - 3600 * 1000, kNoon), "11:00:00");
    EXPECT_EQ(Ctl::ShortTime(kNoon - 24 * 3600 * 1000, kNoon), "2025-11-20 12:00:00");
}

TEST(ReadInput, WhatCannotBeAPolicy_IsASentence) {
    const test::TempDir dir;
    std::string text;
    std::string error;
    EXPECT_TRUE(Ctl::ReadInput(dir.Write("good", "{}"), text, error));
    EXPECT_EQ(text, "{}");
    for (const std::string& path :
         {dir.Path("missing"), dir.Path(), dir.Write("huge", std::string(5 * 1024 * 1024, ' '))}) {
        error.clear();
        EXPECT_FALSE(Ctl::ReadInput(path, text, error)) << path;
        EXPECT_NE(error.find(path), std::string::npos) << error;
    }
}

}  // namespace
