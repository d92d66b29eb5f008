#include <gtest/gtest.h>

#include "base/Password.h"
#include "base/Totp.h"
#include "console/UserAccess.h"
#include "store/FleetStore.h"
#include "support/Postgres.h"

namespace {

using Collector::TotpStep;

std::int64_t now_s = 0;

/// The secret of RFC 6238, appendix B.
constexpr char kSecret[] = "GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ";

TEST(Totp, CodesOfTheStandard_AreGoodForTheirStepAndItsNeighboursOnce) {
    const struct {
        std::int64_t time;
        const char* code;
    } known[] = {{59, "287082"}, {1111111109, "081804"}, {2000000000, "279037"}};
    for (const auto& [time, code] : known) {
        const std::int64_t step = time / 30;
        EXPECT_EQ(TotpStep(kSecret, code, time, 0), step);
        EXPECT_EQ(TotpStep(kSecret, code, time + 30, 0), step) << "a slow phone";
        EXPECT_FALSE(TotpStep(kSecret, code, time + 60, 0));
        EXPECT_FALSE(TotpStep(kSecret, code, time, step)) << "a second time";
    }
    for (const char* wrong : {"", "0", "2870820", "287083", "28708"}) {
        EXPECT_FALSE(TotpStep(kSecret, wrong, 59, 0)) << wrong;
    }
    EXPECT_FALSE(TotpStep("not base32!", "287082", 59, 0));
    EXPECT_NE(Collector::NewTotpSecret(), Collector::NewTotpSecret());
}

class Users : public testing::TestWithParam<test::DatabaseKind> {
  protected:
    Users() {
        now_s = 2000000000;
        Collector::FleetStore tables;
        EXPECT_TRUE(tables.Open(database_.Location())) << tables.Error();
        EXPECT_TRUE(store_.Open(database_.Location()));
        std::string error;
        EXPECT_TRUE(access_.Open(database_.Location(), error)) << error;
        user_.name = "anna";
        user_.role = Console::Role::kOperator;
        user_.password_hash = Collector::HashPassword("correct horse");
        EXPECT_TRUE(store_.Save(user_));
    }
    bool MayLogIn(const std::string& name, const std::string& password,
                  const std::string& code = "") {
        Json::Value credentials;
        credentials["user"] = name;
        credentials["password"] = password;
        credentials["code"] = code;
        return access_.LogIn(credentials).has_value();
    }

    test::AnyDatabase database_{GetParam()};
    Collector::UserStore store_;
    Collector::UserAccess access_{[] { return now_s; }};
    Collector::UserRecord user_;
};

TEST_P(Users, PasswordLetsIn_AndAUserWhoWasRemovedMayNotGoOn) {
    EXPECT_NE(user_.password_hash, Collector::HashPassword("correct horse")) << "salted";
    EXPECT_EQ(user_.password_hash.rfind("$argon2id$", 0), 0U);
    EXPECT_TRUE(MayLogIn("anna", "correct horse"));
    for (const char* wrong : {"", "correct", "correct horse ", "Correct horse"}) {
        EXPECT_FALSE(MayLogIn("anna", wrong)) << wrong;
    }
    EXPECT_FALSE(MayLogIn("nobody", "nobody's"));
    EXPECT_FALSE(MayLogIn("", ""));
    EXPECT_FALSE(access_.LogIn(Json::Value(Json::arrayValue)));
    Json::Value credentials;
    credentials["user"] = "anna";
    credentials["password"] = "correct horse";
    const std::optional<Console::User> anna = access_.LogIn(credentials);
    ASSERT_TRUE(anna);
    EXPECT_TRUE(access_.MayGoOn(*anna));
    Console::User other = *anna;
    other.role = Console::Role::kAdmin;
    EXPECT_FALSE(access_.MayGoOn(other)) << "the role has changed";
    Collector::UserRecord changed = user_;
    changed.password_hash = Collector::HashPassword("another horse");
    EXPECT_TRUE(store_.Save(changed));
    EXPECT_FALSE(access_.MayGoOn(*anna)) << "the password has changed";
    EXPECT_TRUE(store_.Save(user_));
    EXPECT_TRUE(access_.MayGoOn(*anna));
    EXPECT_TRUE(store_.Remove("anna"));
    EXPECT_FALSE(access_.MayGoOn(*anna));
    EXPECT_FALSE(MayLogIn("anna", "correct horse"));
}

TEST_P(Users, WrongPasswords_LockTheNameForAMinute) {
    for (int i = 0; i < Collector::UserAccess::kMostFailures; ++i) {
        EXPECT_FALSE(MayLogIn("anna", "wrong"));
    }
    EXPECT_FALSE(MayLogIn("anna", "correct horse"));
    now_s += Collector::UserAccess::kLockSeconds;
    EXPECT_TRUE(MayLogIn("anna", "correct horse"));
    EXPECT_EQ(store_.Acts(10).size(), 2U) << "the lock and the login";
}

TEST_P(Users, SecondFactor_IsNeededAndGoodOnce) {
    user_.totp_secret = kSecret;
    ASSERT_TRUE(store_.Save(user_));
    EXPECT_FALSE(MayLogIn("anna", "correct horse"));
    EXPECT_FALSE(MayLogIn("anna", "wrong", "279037"));
    EXPECT_TRUE(MayLogIn("anna", "correct horse", "279037"));
    EXPECT_FALSE(MayLogIn("anna", "correct horse", "279037")) << "somebody looked on";
}

INSTANTIATE_TEST_SUITE_P(Database, Users,
                         testing::Values(test::DatabaseKind::kSqlite,
                                         test::DatabaseKind::kPostgres),
                         test::NameOfKind);

}  // namespace
