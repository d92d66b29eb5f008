#pragma once

#include <string_view>
#include <vector>

namespace Console {

/// A file of the web folder, which the build puts into the library.
struct Page {
    std::string_view path;  ///< with a leading "/"
    std::string_view content;
};

const std::vector<Page>& Pages();

}  // namespace Console
