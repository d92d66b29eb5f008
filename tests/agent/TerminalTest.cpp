#include <ctl/client/Input.h>
#include <ctl/output/Terminal.h>
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "support/TempDir.h"

namespace {

TEST(Printable, WhatATerminalWouldObeyOrIsNoUtf8_IsSpelledOut) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {"gr\xc3\xbc\xc3\x9f \xe4\xbd\xa0 \xf0\x9f\x98\x80",
         "gr\xc3\xbc\xc3\x9f \xe4\xbd\xa0 \xf0\x9f\x98\x80"},
        {"a\x1b[2Jb\x07", "a\\x1b[2Jb\\x07"},
        {"line\nbreak\r\t\x7f", "line\\nbreak\\r\\t\\x7f"},
        {"\xc2\x9b", "\\u009b"},                           // C1 control
        {"\xe2\x80\xae", "\\u202e"},                       // right to left
        {"\xe2\x80\x8b_\xef\xbb\xbf", "\\u200b_\\ufeff"},  // invisible
        {"a\\nb", "a\\\\nb"},
        {std::string("nul\0", 4), "nul\\x00"},
        {"\xff_\xc3", "\\xff_\\xc3"},
        {"\xc0\x9b", "\\xc0\\x9b"},                    // overlong
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond Unicode
    };
    for (const auto& [text, printed] : table) EXPECT_EQ(Ctl::Printable(text), printed);
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
