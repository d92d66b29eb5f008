#pragma once

#include <string>
#include <vector>

namespace Ctl {

/// A directory that a web application writes at run time.
struct WrittenDirectory {
    std::string path;  ///< relative to the site; ends in "/", so that no other name begins with it
    std::string why;
};

/// What a site is made with, by its files.
struct SiteKind {
    std::string name;  ///< "WordPress"; empty when it is not known
    std::vector<WrittenDirectory> written = {};
    std::string advice = {};  ///< a sentence; may be empty
};

/// Looks for the files that tell the kind, in the directory and in its usual document roots
/// ("web/", "public/", ...). Reads names only and follows no link below `directory`.
SiteKind RecogniseSite(const std::string& directory);

}  // namespace Ctl
