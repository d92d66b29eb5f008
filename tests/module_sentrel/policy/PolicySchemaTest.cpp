// Compares the JSON Schemas and the pages in docs/ with the check of policies.
#include <Poco/RegularExpression.h>
#include <Poco/String.h>

#include <set>

#include "feature_sentrel/policy_check/PolicyKeys.h"
#include "feature_sentrel/policy_check/SentrelPolicyCheck.h"
#include "fixtures/Installation.h"

namespace {

using Engine::PolicyFindings;
using Engine::PolicyKey;
using Engine::SentrelPolicyCheck;

std::string Doc(const std::string& name) {
    return test::TempDir::Read(std::string(SENTREL_DOCS_DIR) + "/" + name);
}

Json::Value Schema(const std::string& feature) {
    Json::Value schema;
    const std::string text = Doc("policy-" + feature + ".schema.json");
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), schema), 0) << feature;
    return schema;
}

std::set<std::string> NamesIn(const Json::Value& object_schema) {
    const auto names = object_schema["properties"].getMemberNames();
    return {names.begin(), names.end()};
}

std::set<std::string> NamesOf(const std::vector<PolicyKey>& keys) {
    std::set<std::string> names;
    for (const PolicyKey& key : keys) names.insert(key.name);
    return names;
}

class PolicySchema : public ::testing::Test {
  protected:
    /// A document of the page with its placeholders replaced by values of this host.
    static Json::Value Example(std::string text) {
        const Engine::RsyncKeys keys = Engine::RsyncKeys::OfThisHost();
        Poco::replaceInPlace(text, std::string("rsync_x86_64_url"), keys.url);
        Poco::replaceInPlace(text, std::string("rsync_x86_64_hash"), keys.hash);
        Poco::RegularExpression("<sha256[^>]*>")
            .subst(text, std::string(64, 'a'), Poco::RegularExpression::RE_GLOBAL);
        Json::Value document;
        std::string error;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), document, error), 0)
            << error << text;
        if (document["content"].isMember("backupserver_ip")) {
            document["content"]["backupserver_ip"] = "127.0.0.1";
        }
        return document;
    }
    static std::string ErrorsOf(const PolicyFindings& findings) {
        std::string text;
        for (const auto& error : findings.errors) text += error.pointer + ": " + error.message;
        return text;
    }
    /// The documents of a feature in the pages that have some.
    static std::vector<Json::Value> Examples(bool server) {
        const std::string page = Doc("options.md") + Doc("second-host.md");
        static const std::string kFence = "```json\n";
        std::vector<Json::Value> found;
        for (auto at = page.find(kFence); at != std::string::npos; at = page.find(kFence, at)) {
            at += kFence.size();
            const Json::Value document = Example(page.substr(at, page.find("```", at) - at));
            if (!document.isMember("content")) continue;
            if (document["content"].isMember("backupserver_ip") == server) {
                found.push_back(document);
            }
        }
        return found;
    }

    test::Installation install_;
};

TEST_F(PolicySchema, Keys_EqualThoseOfTheCheckAndOfThePageOfOptions) {
    const Json::Value protection = Schema("sentrel_feature");
    const Json::Value server = Schema("backupserver_feature");
    const Json::Value& content = protection["properties"]["content"];
    EXPECT_EQ(NamesIn(protection), NamesOf(Engine::DocumentKeys()));
    EXPECT_EQ(NamesIn(content), NamesOf(Engine::ProtectionKeys()));
    EXPECT_EQ(NamesIn(content["properties"]["dirlist"]["items"]), NamesOf(Engine::EntryKeys()));
    EXPECT_EQ(NamesIn(server), NamesOf(Engine::DocumentKeys()));
    EXPECT_EQ(NamesIn(server["properties"]["content"]), NamesOf(Engine::BackUpServerKeys()));
    const std::string page = Doc("options.md");
    for (const auto* keys : {&Engine::DocumentKeys(), &Engine::ProtectionKeys(),
                             &Engine::EntryKeys(), &Engine::BackUpServerKeys()}) {
        for (const PolicyKey& key : *keys) {
            EXPECT_NE(page.find("\n| `" + key.name + "` |"), std::string::npos) << key.name;
        }
    }
}

TEST_F(PolicySchema, ExamplesOfThePages_AreValid) {
    ASSERT_FALSE(Examples(false).empty() || Examples(true).empty());
    for (Json::Value document : Examples(false)) {
        document["content"]["dirlist"][0]["filepath"] = install_.dir.Path();
        EXPECT_EQ(ErrorsOf(SentrelPolicyCheck::CheckProtection(test::Text(document),
                                                               Engine::WorkSchedule::AlwaysOn())),
                  "");
    }
    for (const Json::Value& document : Examples(true)) {
        EXPECT_EQ(ErrorsOf(SentrelPolicyCheck::CheckBackUpServer(test::Text(document))), "");
    }
}

}  // namespace
