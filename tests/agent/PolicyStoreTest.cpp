#include <gtest/gtest.h>
#include <policy/PolicyStore.h>

#include "support/TempDir.h"

namespace {

using Agent::IsFeatureName;
using Agent::PolicyStore;

TEST(FeatureName, LettersDigitsAndMarks_AreAccepted) {
    for (const std::string& name : {std::string("sentrel_feature"), std::string("A-1.b"),
                                    std::string("a"), std::string(64, 'x')}) {
        EXPECT_TRUE(IsFeatureName(name)) << name;
    }
}

TEST(FeatureName, WhatCouldLeaveTheFolder_IsRefused) {
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string(".hidden"),
          std::string("a/b"), std::string("../a"), std::string("a b"), std::string("a\0b", 3),
          std::string("\xc3\xa4"), std::string(65, 'x')}) {
        EXPECT_FALSE(IsFeatureName(name)) << name;
    }
}

TEST(PolicyStore, SavedPolicy_IsGivenBackAndListed) {
    const test::TempDir dir;
    const PolicyStore store(dir.Path("policies"));
    std::string error;
    std::string text;
    EXPECT_TRUE(store.Features().empty());
    EXPECT_TRUE(store.Save("b", "first", error)) << error;
    EXPECT_TRUE(store.Save("b", "second", error)) << error;
    EXPECT_TRUE(store.Save("a.b", "third", error)) << error;
    dir.Write("policies/notes.txt", "");
    dir.Write("policies/b.json.tmp", "");
    EXPECT_EQ(store.Features(), (std::vector<std::string>{"a.b", "b"}));
    EXPECT_TRUE(store.Load("b", text));
    EXPECT_EQ(text, "second");
}

TEST(PolicyStore, NameThatIsNone_TouchesNoFile) {
    const test::TempDir dir;
    dir.Write("secret.json", "not yours");
    const PolicyStore store(dir.Path("policies"));
    std::string error;
    std::string text;
    EXPECT_FALSE(store.Save("../secret", "{}", error));
    EXPECT_FALSE(store.Load("../secret", text));
    EXPECT_EQ(test::TempDir::Read(dir.Path("secret.json")), "not yours");
}

TEST(PolicyStore, FolderThatCannotBeMade_IsAnError) {
    const test::TempDir dir;
    const PolicyStore store(dir.Write("file", "") + "/policies");
    std::string error;
    EXPECT_FALSE(store.Save("a", "{}", error));
    EXPECT_NE(error.find("a.json"), std::string::npos);
}

}  // namespace
