#pragma once

#include <baseline/BaselineStore.h>
#include <baseline/ManifestBuilder.h>
#include <gtest/gtest.h>
#include <sdk/files/PathUtils.h>
#include <sdk/restore/AttributeComparison.h>

#include <filesystem>
#include <string>
#include <utility>

#include "support/TempDir.h"

namespace test {

/// An installation without an agent, and a site with backup copies and approved states. "cache" is
/// excluded.
class ApprovedSite {
  public:
    ApprovedSite() {
        SDK::PathUtils::SetInstallationPath(installation_.Path());
        site_.Write("index.html", "page\n");
        site_.Write("a/style.css", "style\n");
        std::filesystem::create_symlink("index.html", site_.Path("home"));
    }
    ~ApprovedSite() { SDK::PathUtils::SetInstallationPath(""); }
    ApprovedSite(const ApprovedSite&) = delete;
    ApprovedSite& operator=(const ApprovedSite&) = delete;

    std::string Path() const { return site_.Path(); }
    std::string Path(const std::string& name) const { return site_.Path(name); }
    void Write(const std::string& name, const std::string& text) { site_.Write(name, text); }
    std::string Backup() const { return backup_.Path(); }
    std::string Copy() const { return backup_.Path() + site_.Path(); }
    std::string Copy(const std::string& name) const { return backup_.Path() + site_.Path(name); }
    std::string Installed(const std::string& name) const { return installation_.Path(name); }
    void WriteInstalled(const std::string& name, const std::string& text) {
        installation_.Write(name, text);
    }
    void WritePolicyText(const std::string& text) {
        WriteInstalled("data/policies/sentrel_feature.json", text);
    }
    void WritePolicy(const std::string& path) {
        WritePolicyText(
            R"({"enabled":true,"content":{"dirlist":[{"enable":true,"backup_path":"/b","filepath":")" +
            path + R"("}]}})");
    }
    std::string Data() const { return installation_.Path("data/baseline"); }

    /// Copies the site and approves it, or only the single file `file`.
    void Approve(const std::string& approval, const std::string& file = "") {
        std::filesystem::remove_all(Copy());
        std::filesystem::create_directories(std::filesystem::path(Copy()).parent_path());
        ASSERT_EQ(std::system(("cp -a " + site_.Path() + " " + Copy()).c_str()), 0);
        const auto copies = SDK::PathAnchor::Open(Copy());
        Baseline::ManifestBuilder::Request request;
        request.copies.anchor = copies.get();
        request.copies.file = file;
        request.ignored = [](const std::string& path, bool) { return path == "cache"; };
        request.is_over = [] { return false; };
        Baseline::ManifestWriter writer;
        ASSERT_TRUE(Baseline::ManifestBuilder(std::move(request)).Build(writer));
        Baseline::ManifestInfo info;
        info.is_file = !file.empty();
        info.real_path = site_.Path() + "/" + file;
        info.backup_path = backup_.Path() + "/";
        info.exclusions = {"cache"};
        info.created = 1'000'000'000;
        info.approval = approval;
        info.attribute_kinds = SDK::kAllAttributes;
        ASSERT_TRUE(Baseline::BaselineStore(Data()).Commit(writer, info));
    }

  private:
    TempDir installation_;
    TempDir site_;
    TempDir backup_;
};

}  // namespace test
