#include <ctl/Secret.h>
#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace {

TEST(Secret, Password_IsRefusedOnlyWhereRsyncWouldReadAnother) {
    for (const std::string& good : {std::string("#a"), std::string(":a:b@"), std::string(" \ta b "),
                                    std::string("p\xc3\xa4\"\\$"), std::string(511, 'x')}) {
        EXPECT_EQ(Ctl::CheckPassword(good), "") << good;
    }
    const std::vector<std::pair<std::string, std::string>> table = {
        {"", "empty"},
        {std::string(512, 'x'), "511 bytes"},
        {std::string("s3\0cret", 7), "NUL"},
        {"s3cret\r", "carriage return"},
        {"s3\ncret", "line end"},
        {"s3cret\xe4", "UTF-8"},
    };
    for (const auto& [bad, part] : table) {
        const std::string sentence = Ctl::CheckPassword(bad);
        EXPECT_NE(sentence.find(part), std::string::npos) << sentence;
        EXPECT_EQ(sentence.find("s3"), std::string::npos) << sentence;
    }
}

}  // namespace
