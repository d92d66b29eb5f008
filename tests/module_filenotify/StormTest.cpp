#include <fcntl.h>

#include <cstdio>
#include <random>
#include <thread>

#include "NotifyFixture.h"

namespace test {

/// Writers that change names at random and ignore each other.
class Storm : public NotifyTest, public ::testing::WithParamInterface<unsigned int> {
  protected:
    static std::string Name(std::mt19937& random) { return std::string(1, "abcd"[random() % 4]); }

    std::string Place(std::mt19937& random) const {
        std::string path = Root(Name(random));
        for (unsigned int depth = random() % 4; depth > 0; --depth) path += "/" + Name(random);
        return path;
    }

    void Act(std::mt19937& random) const {
        const std::string place = Place(random);
        const std::string other = Place(random);
        std::error_code ignored;
        switch (random() % 10) {
            case 0:
            case 1:
            case 2:
                fs::create_directories(place, ignored);
                break;
            case 3:
            case 4:
                TouchFile(place);
                break;
            case 5:
                fs::rename(place, other, ignored);
                break;
            case 6:
                ::renameat2(AT_FDCWD, place.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
                break;
            case 7:
                fs::remove_all(place, ignored);
                break;
            case 8:
                fs::create_directory_symlink(site_.Path("outside"), place, ignored);
                break;
            default:
                fs::rename(place, site_.Path("outside/" + Name(random)), ignored);
                fs::rename(site_.Path("outside/" + Name(random)), other, ignored);
        }
    }
};

TEST_P(Storm, WhenItEnds_TheIndexIsTheTreeAndEveryDirectoryIsWatched) {
    fs::create_directory(site_.Path("outside"));
    Watch(Root());
    std::vector<std::thread> writers;
    for (unsigned int writer = 0; writer < 3; ++writer) {
        writers.emplace_back([this, writer] {
            std::mt19937 random(GetParam() * 10 + writer);
            for (int step = 0; step < 1500; ++step) Act(random);
        });
    }
    for (std::thread& writer : writers) writer.join();
    ExpectIndexedAndWatched();
}

INSTANTIATE_TEST_SUITE_P(Seeds, Storm, ::testing::Range(1U, 6U));

}  // namespace test
