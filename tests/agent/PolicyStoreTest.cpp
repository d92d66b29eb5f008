#include <gtest/gtest.h>
#include <policy/PolicyStore.h>

#include "support/TempDir.h"

namespace {

using Agent::PolicyStore;

TEST(PolicyStore, NameThatCouldLeaveTheFolder_IsRefusedAndTouchesNoFile) {
    for (const std::string& name : {std::string("A-1.b"), std::string(64, 'x')}) {
        EXPECT_TRUE(Agent::IsFeatureName(name)) << name;
    }
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string(".hidden"),
          std::string("a/b"), std::string("../a"), std::string("a b"), std::string("a\0b", 3),
          std::string("\xc3\xa4"), std::string(65, 'x')}) {
        EXPECT_FALSE(Agent::IsFeatureName(name)) << name;
    }
    const test::TempDir dir;
    dir.Write("secret.json", "not yours");
    const PolicyStore store(dir.Path("policies"));
    std::string error;
    std::string text;
    EXPECT_FALSE(store.Save("../secret", "{}", error));
    EXPECT_FALSE(store.Load("../secret", text));
    EXPECT_EQ(test::TempDir::Read(dir.Path("secret.json")), "not yours");
}

}  // namespace
