#include <gtest/gtest.h>

#include "sdk/net/NameLookup.h"
#include "support/WaitFor.h"

namespace {

using SDK::NameLookup;

TEST(NameLookup, Address_IsThereAtOnceAndNameSoon) {
    EXPECT_EQ(NameLookup("127.0.0.1").Poll(), NameLookup::Result::kFound);
    EXPECT_EQ(NameLookup("::1").Poll(), NameLookup::Result::kFound);
    const auto answer = [](const std::string& host) {
        const NameLookup lookup(host);
        test::WaitFor([&] { return lookup.Poll() != NameLookup::Result::kPending; },
                      std::chrono::seconds(20));
        return lookup.Poll();
    };
    EXPECT_EQ(answer("localhost"), NameLookup::Result::kFound);
    EXPECT_EQ(answer("no host has this name"), NameLookup::Result::kNotFound);
}

}  // namespace
