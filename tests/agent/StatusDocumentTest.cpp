#include <control/StatusDocument.h>
#include <gtest/gtest.h>

namespace {

TEST(MergeStatus, Members_AreUnitedAndObjectsMergedMemberByMember) {
    Json::Value status;
    status["pid"] = 1;
    status["counters"]["a"] = 1;
    Json::Value part;
    part["pid"] = 2;
    part["counters"]["b"] = 2;
    part["paths"].append("/srv");
    Agent::MergeStatus(part, status);
    EXPECT_EQ(status["pid"], 1);
    EXPECT_EQ(status["counters"]["a"], 1);
    EXPECT_EQ(status["counters"]["b"], 2);
    EXPECT_EQ(status["paths"].size(), 1u);
}

TEST(MergeStatus, WhatIsNoObject_ChangesNothing) {
    Json::Value status;
    status["counters"]["a"] = 1;
    const Json::Value before = status;
    Json::Value part;
    part["counters"] = "many";
    Agent::MergeStatus(part, status);
    Agent::MergeStatus(Json::Value("text"), status);
    Agent::MergeStatus(Json::Value(Json::arrayValue), status);
    EXPECT_EQ(status, before);
}

}  // namespace
