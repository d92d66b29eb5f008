// Knows the files of common web applications. It must not decide what is protected (the operator
// does).
#include "ctl/protect/SiteKind.h"

#include <sdk/files/PathAnchor.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>

namespace Ctl {

namespace {

struct KnownKind {
    const char* name;
    std::vector<std::vector<const char*>> marks;  ///< all files of one group are there
    std::vector<WrittenDirectory> written;
    const char* advice;
};

constexpr char kUploads[] =
    "Visitors' uploads stay unprotected: let the web server run no scripts there.";
constexpr char kGenerator[] =
    "This is the source of the pages. Visitors see the generator's output: protect that directory.";

const std::vector<KnownKind>& KnownKinds() {
    static const std::vector<KnownKind> kinds = {
        {"WordPress",
         {{"wp-includes/version.php"}, {"wp-config.php", "wp-login.php"}},
         {{"wp-content/uploads/", "uploaded files"},
          {"wp-content/cache/", "caches of plugins"},
          {"wp-content/upgrade/", "updates that are unpacked"}},
         kUploads},
        {"Drupal",
         {{"core/lib/Drupal.php"}, {"includes/bootstrap.inc", "modules/system/system.module"}},
         {{"sites/default/files/", "uploaded files and caches"}},
         kUploads},
        {"Joomla",
         {{"administrator/manifests/files/joomla.xml"},
          {"administrator/index.php", "libraries/src/Version.php"}},
         {{"cache/", "caches"},
          {"administrator/cache/", "caches"},
          {"administrator/logs/", "logs"},
          {"tmp/", "temporary files"},
          {"images/", "uploaded media"}},
         kUploads},
        {"Nextcloud",
         {{"occ", "version.php", "lib/private/Server.php"},
          {"occ", "status.php", "core/register_command.php"}},
         {{"data/", "the users' files"}, {"updater/", "updates that are unpacked"}},
         "Install and update apps only after \"morvanectl unprotect\"."},
        {"Laravel",
         {{"artisan", "bootstrap/app.php"}},
         {{"storage/", "uploads, sessions, caches and logs"}, {"bootstrap/cache/", "caches"}},
         ""},
        {"Hugo",
         {{"hugo.toml"}, {"hugo.yaml"}, {"config.toml", "archetypes"}},
         {{"resources/_gen/", "the generator's cache"}},
         kGenerator},
        {"Jekyll",
         {{"_config.yml", "_posts"}, {"_config.yml", "_layouts"}},
         {{".jekyll-cache/", "the generator's cache"}},
         kGenerator},
        {"Eleventy", {{".eleventy.js"}, {"eleventy.config.js"}}, {}, kGenerator},
        {"Gatsby",
         {{"gatsby-config.js"}, {"gatsby-config.ts"}},
         {{".cache/", "the generator's cache"}},
         kGenerator},
    };
    return kinds;
}

bool HasAll(const SDK::PathAnchor& site, const std::string& root,
            const std::vector<const char*>& names) {
    return std::all_of(names.begin(), names.end(), [&](const char* name) {
        struct stat info {};
        return site.Stat(root + name, info) == 0;
    });
}

bool Matches(const SDK::PathAnchor& site, const std::string& root, const KnownKind& kind) {
    return std::any_of(kind.marks.begin(), kind.marks.end(),
                       [&](const auto& names) { return HasAll(site, root, names); });
}

/// No kind matches, but pages are there.
SiteKind PlainSite(const SDK::PathAnchor& site) {
    struct stat info {};
    if (site.Stat("index.html", info) != 0 || site.Stat("index.php", info) == 0) return {""};
    return {"static pages"};
}

}  // namespace

SiteKind RecogniseSite(const std::string& directory) {
    static constexpr std::array<const char*, 6> kRoots = {"",         "web/",    "public/",
                                                          "docroot/", "htdocs/", "public_html/"};
    const auto site = SDK::PathAnchor::Open(directory);
    if (site == nullptr) return {""};
    for (const char* root : kRoots) {
        for (const KnownKind& known : KnownKinds()) {
            if (!Matches(*site, root, known)) continue;
            SiteKind kind{known.name, known.written, known.advice};
            for (WrittenDirectory& written : kind.written) written.path = root + written.path;
            return kind;
        }
    }
    return PlainSite(*site);
}

}  // namespace Ctl
