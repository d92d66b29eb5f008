#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace test {

/// A new directory that the destructor removes. Paths are raw bytes.
class TempDir {
  public:
    TempDir() {
        std::string name =
            (std::filesystem::temp_directory_path() / "sentrel-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) std::abort();
        path_ = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// The directory without a trailing "/", or `name` below it.
    std::string Path() const { return path_; }
    std::string Path(const std::string& name) const { return path_ + "/" + name; }

    /// Writes a file, creates its parent directories, and returns its full path.
    std::string Write(const std::string& name, const std::string& content) const {
        const std::string file = Path(name);
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
        return file;
    }

    static std::string Read(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

  private:
    std::string path_;
};

}  // namespace test
