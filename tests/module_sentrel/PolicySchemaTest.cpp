// Holds the JSON Schemas and the operators' pages in docs/ against the check of policies.
#include <Poco/RegularExpression.h>
#include <Poco/String.h>
#include <PolicyKeys.h>
#include <SentrelPolicyCheck.h>
#include <json/reader.h>

#include <map>
#include <set>
#include <sstream>

#include "Installation.h"

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

bool HasType(const Json::Value& value, const std::string& type) {
    return (type == "object" && value.isObject()) || (type == "array" && value.isArray()) ||
           (type == "string" && value.isString()) || (type == "integer" && value.isInt()) ||
           (type == "boolean" && value.isBool());
}

/// As much of JSON Schema as ours use; another keyword is a recorded failure.
class Validator {
  public:
    /// False when `value` is not what `schema` describes.
    static bool Accepts(const Json::Value& schema, const Json::Value& value) {
        for (const std::string& keyword : schema.getMemberNames()) {
            if (!Holds(keyword, schema, value)) return false;
        }
        return true;
    }

  private:
    static bool Holds(const std::string& keyword, const Json::Value& schema,
                      const Json::Value& value) {
        const Json::Value& rule = schema[keyword];
        if (keyword == "type") return HasType(value, rule.asString());
        if (keyword == "const") return value == rule;
        if (keyword == "minimum") return !value.isInt() || value.asInt() >= rule.asInt();
        if (keyword == "maximum") return !value.isInt() || value.asInt() <= rule.asInt();
        if (keyword == "minLength") return !value.isString() || Length(value) >= rule.asUInt();
        if (keyword == "maxLength") return !value.isString() || Length(value) <= rule.asUInt();
        if (keyword == "pattern") return !value.isString() || Matches(value.asString(), rule);
        if (keyword == "if") return !Accepts(rule, value) || Accepts(schema["then"], value);
        if (keyword == "items") return !value.isArray() || AllAccepted(rule, value);
        if (keyword == "required") return !value.isObject() || HasAll(rule, value);
        if (keyword == "properties") return !value.isObject() || MembersAccepted(rule, value);
        if (keyword == "patternProperties") {
            return !value.isObject() || PatternMembersAccepted(rule, value);
        }
        static const std::set<std::string> kNotes = {"$schema", "title", "description", "default",
                                                     "then"};
        EXPECT_EQ(kNotes.count(keyword), 1U) << keyword;
        return true;
    }
    static std::size_t Length(const Json::Value& value) { return value.asString().size(); }
    static bool Matches(const std::string& text, const Json::Value& pattern) {
        Poco::RegularExpression::Match match;
        return Poco::RegularExpression(pattern.asString()).match(text, match) > 0;
    }
    static bool AllAccepted(const Json::Value& schema, const Json::Value& list) {
        return std::all_of(list.begin(), list.end(),
                           [&](const Json::Value& element) { return Accepts(schema, element); });
    }
    static bool HasAll(const Json::Value& names, const Json::Value& object) {
        return std::all_of(names.begin(), names.end(), [&](const Json::Value& name) {
            return object.isMember(name.asString());
        });
    }
    static bool MembersAccepted(const Json::Value& schemas, const Json::Value& object) {
        const auto names = schemas.getMemberNames();
        return std::all_of(names.begin(), names.end(), [&](const std::string& name) {
            return !object.isMember(name) || Accepts(schemas[name], object[name]);
        });
    }
    static bool PatternMembersAccepted(const Json::Value& schemas, const Json::Value& object) {
        for (const std::string& pattern : schemas.getMemberNames()) {
            for (const std::string& name : object.getMemberNames()) {
                if (Matches(name, pattern) && !Accepts(schemas[pattern], object[name])) {
                    return false;
                }
            }
        }
        return true;
    }
};

std::string TypeOf(const Json::Value& schema) {
    const std::string type = schema["type"].asString();
    return type == "array" ? "array of " + schema["items"]["type"].asString() : type;
}

std::map<std::string, std::string> TypesOf(const Json::Value& object_schema) {
    std::map<std::string, std::string> types;
    const Json::Value& properties = object_schema["properties"];
    for (const std::string& name : properties.getMemberNames()) {
        types[name] = TypeOf(properties[name]);
    }
    return types;
}

std::map<std::string, std::string> TypesOf(const std::vector<PolicyKey>& keys) {
    static const std::map<PolicyKey::Type, std::string> kNames = {
        {PolicyKey::Type::kBool, "boolean"},
        {PolicyKey::Type::kInt, "integer"},
        {PolicyKey::Type::kString, "string"},
        {PolicyKey::Type::kObject, "object"},
        {PolicyKey::Type::kStringArray, "array of string"},
        {PolicyKey::Type::kIntArray, "array of integer"},
        {PolicyKey::Type::kObjectArray, "array of object"}};
    std::map<std::string, std::string> types;
    for (const PolicyKey& key : keys) types[key.name] = kNames.at(key.type);
    return types;
}

class PolicySchema : public ::testing::Test {
  protected:
    /// A document of the pages, with what is a stand-in there replaced by this host's own.
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
    /// The documents of a feature that stand on the operators' page.
    static std::vector<Json::Value> Examples(bool server) {
        const std::string page = Doc("operators.md");
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
    const Json::Value protection_ = Schema("sentrel_feature");
    const Json::Value server_ = Schema("backupserver_feature");
};

TEST_F(PolicySchema, Keys_AreThoseOfTheCheckAndOnTheOperatorsPage) {
    const Json::Value& content = protection_["properties"]["content"];
    EXPECT_EQ(TypesOf(protection_), TypesOf(Engine::DocumentKeys()));
    EXPECT_EQ(TypesOf(content), TypesOf(Engine::ProtectionKeys()));
    EXPECT_EQ(TypesOf(content["properties"]["dirlist"]["items"]), TypesOf(Engine::EntryKeys()));
    EXPECT_EQ(TypesOf(server_), TypesOf(Engine::DocumentKeys()));
    EXPECT_EQ(TypesOf(server_["properties"]["content"]), TypesOf(Engine::BackupServerKeys()));
    const std::string page = Doc("operators.md");
    for (const auto* keys : {&Engine::DocumentKeys(), &Engine::ProtectionKeys(),
                             &Engine::EntryKeys(), &Engine::BackupServerKeys()}) {
        for (const PolicyKey& key : *keys) {
            EXPECT_NE(page.find("\n| `" + key.name + "` |"), std::string::npos) << key.name;
        }
    }
}

TEST_F(PolicySchema, ExamplesOfTheOperatorsPage_AreGood) {
    ASSERT_FALSE(Examples(false).empty() || Examples(true).empty());
    for (const Json::Value& document : Examples(false)) {
        EXPECT_TRUE(Validator::Accepts(protection_, document)) << test::Text(document);
        EXPECT_EQ(ErrorsOf(SentrelPolicyCheck::CheckProtection(test::Text(document))), "");
    }
    for (const Json::Value& document : Examples(true)) {
        EXPECT_TRUE(Validator::Accepts(server_, document)) << test::Text(document);
        EXPECT_EQ(ErrorsOf(SentrelPolicyCheck::CheckBackupServer(test::Text(document))), "");
    }
}

struct Change {
    std::string pointer;  ///< a member of the example
    std::string value;    ///< JSON; empty takes the member away
    bool good = false;
};

Json::Value Changed(Json::Value document, const Change& change) {
    Json::Value* at = &document;
    std::string name;
    std::istringstream parts(change.pointer);
    while (std::getline(parts, name, '/')) {
        if (name.empty()) continue;
        if (parts.eof() && change.value.empty()) {
            at->removeMember(name);
            return document;
        }
        at = at->isArray() ? &(*at)[std::stoi(name)] : &(*at)[name];
    }
    std::istringstream(change.value) >> *at;
    return document;
}

/// The schema and the check judge each change of the example alike, and as it is meant.
void ExpectJudged(const Json::Value& schema, PolicyFindings (*check)(const std::string&),
                  const Json::Value& example, const std::vector<Change>& changes) {
    for (const Change& change : changes) {
        const Json::Value document = Changed(example, change);
        EXPECT_EQ(Validator::Accepts(schema, document), change.good) << test::Text(document);
        EXPECT_EQ(check(test::Text(document)).errors.empty(), change.good) << test::Text(document);
    }
}

TEST_F(PolicySchema, ProtectionPolicies_AreJudgedAsTheCheckDoes) {
    const Engine::RsyncKeys keys = Engine::RsyncKeys::OfThisHost();
    const std::string entry = "/content/dirlist/0/";
    ExpectJudged(protection_, SentrelPolicyCheck::CheckProtection, Examples(false).at(0),
                 {{"/enabled", "1"},
                  {"/content", ""},
                  {"/content", "[]"},
                  {"/content/os_type", ""},
                  {"/content/os_type", "1"},
                  {"/content/os_type", "\"0\""},
                  {"/content/backup_port", "65535", true},
                  {"/content/backup_port", "65536"},
                  {"/content/backup_port", "-1"},
                  {"/content/backup_addr", "7"},
                  {"/content/monitor_only", "\"yes\""},
                  {"/content/disable_week", "[6]", true},
                  {"/content/disable_week", "[7]"},
                  {"/content/disable_week", "[\"0\"]"},
                  {"/content/disable_timerange", "[\"8:00-9:5\", \"23:59-00:00\"]", true},
                  {"/content/disable_timerange", "[\"24:00-01:00\"]"},
                  {"/content/disable_timerange", "[\"8:00\"]"},
                  {"/content/disable_timerange", "[\"8:60-9:00\"]"},
                  {"/content/disable_timerange", "\"8:00-9:00\""},
                  {"/content/" + keys.url, "\"ftp://host/rsync\""},
                  {"/content/" + keys.hash, "\"AB\""},
                  {"/content/rsync_riscv64_url", "7"},
                  {"/content/dirlist", "", true},
                  {"/content/dirlist", "[7]"},
                  {entry + "enable", "0"},
                  {entry + "filepath", "[]"},
                  {entry + "ignored_postfix", "\".log\""},
                  {entry + "ignored_subdir", "[\"\"]"},
                  {"/note", "7", true}});
}

TEST_F(PolicySchema, BackupServerPolicies_AreJudgedAsTheCheckDoes) {
    const Json::Value example = Examples(true).at(0);
    ExpectJudged(server_, SentrelPolicyCheck::CheckBackupServer, example,
                 {{"/enabled", "\"true\""},
                  {"/content", ""},
                  {"/content/backupserver_ip", ""},
                  {"/content/backupserver_ip", "\"\""},
                  {"/content/backupserver_ip", "127"},
                  {"/content/backupserver_port", ""},
                  {"/content/backupserver_port", "0"},
                  {"/content/backupserver_port", "65536"},
                  {"/content/backupserver_port", "\"873\""},
                  {"/content/backupserver_port", "1", true},
                  {"/content/backupserver_path", ""},
                  {"/content/backupserver_path", "\"backup\""},
                  {"/content/os_type", "\"0\""},
                  {"/content/os_type", "0", true}});
    const Json::Value off = Changed(Changed(example, {"/content", ""}), {"/enabled", "false"});
    EXPECT_TRUE(Validator::Accepts(server_, off));
    EXPECT_EQ(ErrorsOf(SentrelPolicyCheck::CheckBackupServer(test::Text(off))), "");
}

}  // namespace
