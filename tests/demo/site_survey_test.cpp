#include <gtest/gtest.h>

#include <set>

#include "SiteSurvey.h"
#include "support/TempDir.h"

namespace Demo {
namespace {

TEST(SiteSurvey, MixedSite_VictimsApartAndFit) {
    const test::TempDir dir;
    for (const char* directory : {"a", "a-b", "a/deep", "c", "d", "with blank", "uploads"}) {
        for (const char* name : {"1.php", "2.php"}) {
            dir.Write(std::string("site/") + directory + "/" + name, name);
        }
    }
    dir.Write("site/d/page.cache", "cached");
    dir.Write("site/odd name.html", "odd");
    const SurveyRequest request{dir.Path("site"), {"uploads"}, {".cache"}, 4, 2};
    Victims victims;
    std::string error;
    ASSERT_TRUE(ChooseVictims(request, victims, error)) << error;

    const std::set<std::string> directories(victims.directories.begin(), victims.directories.end());
    EXPECT_EQ(directories.count(dir.Path("site/a/deep")), 0U);  // below another that is fit
    EXPECT_EQ(directories.count(dir.Path("site/d")), 0U);       // holds what is excluded
    const std::set<std::string> files(victims.files.begin(), victims.files.end());
    EXPECT_EQ(files.size(), 4U);
    for (const std::string& file : files) {
        EXPECT_TRUE(IsCarryable(file)) << file;
        EXPECT_EQ(file.find("uploads"), std::string::npos);
        for (const std::string& directory : directories)
            EXPECT_NE(file.rfind(directory + "/", 0), 0U);
    }
}

TEST(SiteSurvey, TooSmall_SaysWhatIsMissing) {
    const test::TempDir dir;
    dir.Write("site/only.html", "x");
    Victims victims;
    std::string error;
    EXPECT_FALSE(ChooseVictims({dir.Path("site"), {}, {}, 7, 2}, victims, error));
    EXPECT_NE(error.find("too small"), std::string::npos);
}

}  // namespace
}  // namespace Demo
