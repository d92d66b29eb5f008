// Measures comparisons with an approved state beside the least that they need: a look at each
// object, and reading and hashing each content. Builds a site and its copies in --directory,
// repeats all figures in turn, and prints medians and ratios, or one JSON object with --json.

#include <baseline/BaselineStore.h>
#include <baseline/ManifestBuilder.h>
#include <baseline/TreeVerifier.h>
#include <dirent.h>
#include <fcntl.h>
#include <sdk/files/Sha256.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr int kFilesPerDirectory = 100;
constexpr int kFileBytes = 4096;

double Seconds(const std::function<void()>& work) {
    const auto begun = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

/// A site, its copies, and a manifest of them.
class Ground {
  public:
    Ground(const std::string& directory, int files)
        : site_(directory + "/site"), copies_(directory + "/copies"), store_(directory + "/store") {
        for (int i = 0; i < files; ++i) {
            const std::string folder = "/d" + std::to_string(i / kFilesPerDirectory);
            if (i % kFilesPerDirectory == 0) fs::create_directories(site_ + folder);
            std::ofstream(site_ + folder + "/f" + std::to_string(i))
                << std::string(kFileBytes, static_cast<char>('a' + i % 26));
        }
        const std::string copy = "cp -a " + site_ + " " + copies_;
        if (std::system(copy.c_str()) != 0) throw std::runtime_error("cannot copy the site");
        // The kernel's clock for files must move on: newer objects than the copies are read.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        live_ = SDK::PathAnchor::Open(site_);
        copy_ = SDK::PathAnchor::Open(copies_);
        for (const auto& entry : fs::recursive_directory_iterator(site_)) {
            if (entry.is_regular_file()) files_.push_back(entry.path());
        }
    }

    void LookAtEach() const {
        struct stat info {};
        for (const auto& folder : fs::directory_iterator(site_)) {
            DIR* const names = ::opendir(folder.path().c_str());
            while (const dirent* entry = ::readdir(names)) {
                ::fstatat(::dirfd(names), entry->d_name, &info, AT_SYMLINK_NOFOLLOW);
            }
            ::closedir(names);
        }
    }

    /// Reads and hashes each file of both sides, or of the site.
    void HashEach(unsigned int threads, bool both_sides) const {
        std::atomic<std::size_t> next{0};
        std::vector<std::thread> workers;
        for (unsigned int i = 0; i < threads; ++i) {
            workers.emplace_back([&] {
                std::vector<char> buffer(131'072);
                SDK::Sha256 hash;
                SDK::Sha256::Digest digest;
                for (std::size_t at = next++; at < files_.size(); at = next++) {
                    for (int side = 0; side < (both_sides ? 2 : 1); ++side) {
                        const std::string file =
                            side == 0 ? files_[at] : copies_ + files_[at].substr(site_.size());
                        const SDK::FileDescriptor opened(
                            ::open(file.c_str(), O_RDONLY | O_CLOEXEC));
                        hash.Restart();
                        for (ssize_t got = 0;
                             (got = ::read(opened.Get(), buffer.data(), buffer.size())) > 0;) {
                            hash.Update(buffer.data(), static_cast<std::size_t>(got));
                        }
                        hash.Finish(digest);
                    }
                }
            });
        }
        for (std::thread& worker : workers) worker.join();
    }

    void Verify(bool full, unsigned int threads) const {
        Baseline::TreeVerifier::Request request;
        request.root.anchor = live_.get();
        request.manifest = manifest_.get();
        request.full = full;
        request.ignored = [](const std::string&, bool) { return false; };
        request.is_over = [] { return false; };
        request.threads = threads;
        request.found = [](const Baseline::Difference& one) {
            throw std::runtime_error("a difference in an unchanged tree: " + one.path);
        };
        Baseline::TreeVerifier(std::move(request)).Run();
    }

    /// `anew`: without the last manifest, as after the first backup.
    void Commit(bool anew) {
        Baseline::ManifestBuilder::Request request;
        request.copies.anchor = copy_.get();
        request.live.anchor = live_.get();
        request.last = anew ? nullptr : manifest_.get();
        ::clock_gettime(CLOCK_REALTIME, &request.begun);
        request.ignored = [](const std::string&, bool) { return false; };
        request.is_over = [] { return false; };
        request.threads = 2;
        Baseline::ManifestWriter writer;
        Baseline::ManifestBuilder(std::move(request)).Build(writer);
        Baseline::ManifestInfo info;
        info.real_path = site_ + "/";
        info.backup_path = copies_;
        manifest_ = store_.Commit(writer, info).manifest;
        if (manifest_ == nullptr) throw std::runtime_error("cannot write the manifest");
    }

    double ManifestMiB() const {
        return static_cast<double>(manifest_->Bytes().size()) / 1024 / 1024;
    }

  private:
    const std::string site_;
    const std::string copies_;
    const Baseline::BaselineStore store_;
    std::unique_ptr<SDK::PathAnchor> live_;
    std::unique_ptr<SDK::PathAnchor> copy_;
    std::vector<std::string> files_;
    std::shared_ptr<const Baseline::Manifest> manifest_;
};

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

int Main(int argc, char** argv) {
    std::string directory = fs::temp_directory_path();
    int files = 200'000;
    int runs = 5;
    bool json = false;
    CLI::App app("Comparisons with an approved state.");
    app.add_option("--directory", directory, "Where to build the trees");
    app.add_option("--files", files, "Files of 4 KiB");
    app.add_option("--runs", runs, "Runs of each figure");
    app.add_flag("--json", json, "One JSON object");
    CLI11_PARSE(app, argc, argv);
    std::string place = directory + "/baseline-bench-XXXXXX";
    if (::mkdtemp(place.data()) == nullptr) return 1;
    std::map<std::string, std::vector<double>> seconds;
    double size = 0;
    {
        Ground ground(place, files);
        ground.Commit(true);
        const std::vector<std::pair<std::string, std::function<void()>>> figures = {
            {"look", [&] { ground.LookAtEach(); }},
            {"start_check", [&] { ground.Verify(false, 1); }},
            {"hash_both_1", [&] { ground.HashEach(1, true); }},
            {"hash_both_2", [&] { ground.HashEach(2, true); }},
            {"verify_full_1", [&] { ground.Verify(true, 1); }},
            {"verify_full_2", [&] { ground.Verify(true, 2); }},
            {"manifest_first", [&] { ground.Commit(true); }},
            {"manifest_again", [&] { ground.Commit(false); }},
        };
        for (int run = 0; run < runs; ++run) {
            for (const auto& [name, work] : figures) seconds[name].push_back(Seconds(work));
        }
        size = ground.ManifestMiB();
    }
    fs::remove_all(place);
    const auto ratio = [&](const char* a, const char* b) {
        return Median(seconds[a]) / Median(seconds[b]);
    };
    std::printf(json ? "{\"files\": %d, \"manifest_mib\": %.1f" : "%d files, manifest %.1f MiB\n",
                files, size);
    for (const auto& [name, values] : seconds) {
        std::printf(json ? ", \"%s\": %.3f" : "%-15s %.3f s\n", name.c_str(), Median(values));
    }
    std::printf(json ? ", \"start_check_to_look\": %.2f, \"verify_to_hash_both_1\": %.2f, "
                       "\"verify_to_hash_both_2\": %.2f}\n"
                     : "start check %.2f x a look at each object; full verify %.2f x hashing both "
                       "sides on one thread, %.2f x on two\n",
                ratio("start_check", "look"), ratio("verify_full_1", "hash_both_1"),
                ratio("verify_full_2", "hash_both_2"));
    return 0;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    return bench::Main(argc, argv);
}
