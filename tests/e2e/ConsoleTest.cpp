// The web console in a real browser.
#include <cstdlib>
#include <filesystem>

#include "support/ProtectedSite.h"

namespace {

using Console = test::ProtectedSite;

TEST_F(Console, PersonWithABrowser_SeesAnAttackAndDecides) {
    const std::string folder = SENTREL_BROWSER_TEST;
    if (!std::filesystem::exists(folder + "/node_modules")) {
        GTEST_SKIP() << "scripts/test.sh installs what drives the browser";
    }
    Protect();
    const std::string command = "exec timeout 300 node " + folder + "/console.mjs " +
                                agent_.Path("bin/morvanectl") + " " + site_.Path();
    EXPECT_EQ(std::system(command.c_str()), 0);
}

}  // namespace
