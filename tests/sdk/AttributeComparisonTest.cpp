#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <string>

#include "OpenAcl.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/restore/AttributeComparison.h"
#include "support/TempDir.h"

namespace {

using SDK::AttributeComparison;

class Attributes : public testing::Test {
  protected:
    void Set(const std::string& file, const char* name, const std::string& value) {
        ASSERT_EQ(::lsetxattr(dir_.Path(file).c_str(), name, value.data(), value.size(), 0), 0);
    }
    SDK::ExtendedAttributes Of(const std::string& file, unsigned kinds = SDK::kAllAttributes) {
        return AttributeComparison::Read(open_.Get(), file, kinds);
    }

    test::TempDir dir_;
    SDK::FileDescriptor open_{::open(dir_.Path().c_str(), O_PATH | O_CLOEXEC)};
};

TEST_F(Attributes, EachKind_IsComparedWhereItIsAsked) {
    ASSERT_EQ(AttributeComparison::TakenIn(open_.Get()), SDK::kAllAttributes);
    EXPECT_TRUE(std::filesystem::is_empty(dir_.Path()));
    dir_.Write("copy", "");
    for (const auto& [name, value, kind] :
         {std::tuple<const char*, std::string, unsigned>{"user.a", "1", SDK::kUserAttributes},
          {"trusted.a", "1", SDK::kTrustedAttributes},
          {"security.capability", std::string("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20),
           SDK::kSecurityAttributes},
          {"system.posix_acl_access", test::kOpenAcl, SDK::kAcls}}) {
        dir_.Write("live", "");
        Set("live", name, value);
        for (unsigned kinds : {kind, SDK::kAllAttributes & ~kind}) {
            EXPECT_EQ(AttributeComparison::Differ(Of("live", kinds), Of("copy", kinds)),
                      kinds == kind)
                << name;
        }
        ASSERT_EQ(AttributeComparison::Make(open_.Get(), "live", Of("copy"), SDK::kAllAttributes),
                  0);
        EXPECT_FALSE(AttributeComparison::Differ(Of("live"), Of("copy"))) << name;
    }
}

TEST_F(Attributes, WhatTheSystemSets_IsNoDifference) {
    dir_.Write("live", "");
    Set("live", "trusted.overlay.opaque", "y");
    Set("live", "security.SMACK64", "label");
    Set("live", "user.rsync.%stat", "x");
    EXPECT_TRUE(Of("live").values.empty());
}

TEST_F(Attributes, TooManyBytes_DifferFromFewer) {
    SDK::ExtendedAttributes cut;
    cut.is_cut = true;
    EXPECT_TRUE(AttributeComparison::Differ(cut, {}));
    EXPECT_FALSE(AttributeComparison::Differ({}, cut)) << "a restore leaves the first ones only";
    EXPECT_FALSE(AttributeComparison::Differ(cut, cut));
    EXPECT_TRUE(Of("missing").values.empty());
}

}  // namespace
