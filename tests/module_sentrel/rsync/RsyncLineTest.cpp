#include <gtest/gtest.h>

#include "rsync/RsyncLine.h"

namespace {

using Engine::RsyncLine;
using Words = std::vector<std::string>;

Words Command(const Words& rest) {
    Words words{"/i/bin/rsync",   "-az", "-H", "-X", "--links", "--delete-excluded",
                "--temp-dir=/tmp"};
    words.insert(words.end(), rest.begin(), rest.end());
    return words;
}

TEST(RsyncLine, Of_ParsesOnlyTheModulesLocalCommands) {
    const auto backup = RsyncLine::Of(Command({"--exclude", "*.log", "-R", "/site/", "/backup"}));
    ASSERT_TRUE(backup);
    EXPECT_TRUE(backup->is_backup);
    EXPECT_EQ(backup->exclusions, Words{"*.log"});
    EXPECT_EQ(backup->source + backup->target, "/site//backup");
    EXPECT_EQ(backup->With("/r", "/t", "/a", "/b", "/k"),
              (Words{"/r", "-az", "-H", "-X", "--links", "--delete-excluded", "--temp-dir=/t",
                     "--exclude", "*.log", "--backup", "--backup-dir=/k", "-R", "/a", "/b"}));
    const auto restore = RsyncLine::Of(Command({"/backup/site/-x y", "/site/-x y"}));
    ASSERT_TRUE(restore);
    EXPECT_FALSE(restore->is_backup);
    EXPECT_EQ(restore->target, "/site/-x y");
    EXPECT_EQ(restore->With("/r", "/t", "/a", "/b").back(), "/b");
    EXPECT_EQ(restore->With("/r", "", "/a", "/b"),
              (Words{"/r", "-az", "-H", "-X", "--links", "--delete-excluded", "/a", "/b"}));
    for (const Words& rest : {Words{"/one"}, Words{"/a", "/b", "/c"}, Words{"a", "/b"},
                              Words{"--exclude", "x", "/a"}, Words{"/a", "host::module/"}}) {
        EXPECT_FALSE(RsyncLine::Of(Command(rest))) << rest.front();
    }
    EXPECT_FALSE(RsyncLine::Of({"/i/bin/rsync", "--version"}));
    EXPECT_FALSE(RsyncLine::Of({"/i/bin/rsync", "-az", "-H", "-X", "-R", "--links"}));
}

}  // namespace
