#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "site/OddNames.h"
#include "support/TempDir.h"
#include "support/WaitFor.h"

namespace Demo {
namespace {

/// Runs `sh -c TEXT` in `folder`, like a program that puts names into its command lines.
void RunShell(const std::string& folder, const std::string& text) {
    const pid_t child = ::fork();
    if (child == 0) {
        if (::chdir(folder.c_str()) != 0 || !std::freopen("/dev/null", "w", stderr)) ::_exit(1);
        ::execl("/bin/sh", "sh", "-c", text.c_str(), nullptr);
        ::_exit(1);
    }
    ::waitpid(child, nullptr, 0);
}

// The demo proves something only if these commands do work in a shell.
TEST(OddNames, GivenToAShell_EachCommandLeavesItsMark) {
    const test::TempDir dir;
    const OddNames names(dir.Path("site"), dir.Path());
    ASSERT_EQ(names.Make(), "");
    EXPECT_TRUE(names.AreThere());
    EXPECT_TRUE(names.ExecutedMarkers().empty());
    std::vector<OddNames::Name> all = names.Pages();
    all.insert(all.end(), {names.Directory(), names.Foreign()});
    std::size_t left = 0;
    for (const OddNames::Name& name : all) {
        RunShell(dir.Path(), "true " + name.path + " >out 2>&1");
        left += name.marker.empty() ? 0U : 1U;
        // One of them goes to the background.
        EXPECT_TRUE(test::WaitFor([&] { return names.ExecutedMarkers().size() == left; },
                                  std::chrono::seconds(10)))
            << name.path;
    }
    EXPECT_EQ(left, 6U);
}

}  // namespace
}  // namespace Demo
