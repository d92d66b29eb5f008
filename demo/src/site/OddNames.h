#pragma once

#include <string>
#include <vector>

namespace Demo {

/// Objects of a site whose names are commands for a shell, or break a program that splits command
/// lines. The commands are harmless: each creates its own marker file in the marker folder. Not
/// thread-safe.
class OddNames {
  public:
    struct Name {
        std::string what;    ///< what is odd about it
        std::string path;    ///< absolute
        std::string marker;  ///< the file that its command creates; empty: no command
    };

    /// Both folders without a trailing "/".
    OddNames(const std::string& site, const std::string& marker_folder);

    /// Makes the pages and the directory with two pages, but not the object of `Foreign`. Returns
    /// the reason of a failure, else "".
    std::string Make() const;

    /// True when this site has them.
    bool AreThere() const;

    /// Pages with blanks and quotes in their names; pages with worse names.
    const std::vector<std::string>& Quoted() const { return quoted_; }
    const std::vector<Name>& Pages() const { return pages_; }
    const Name& Directory() const { return directory_; }
    const Name& Foreign() const { return foreign_; }

    /// The existing marker files: a shell has run their commands.
    std::vector<std::string> ExecutedMarkers() const;

  private:
    Name WithCommand(const std::string& what, const std::string& before, const std::string& after);

    const std::string home_;
    const std::string marker_folder_;
    int commands_ = 0;
    std::vector<std::string> quoted_;
    std::vector<Name> pages_;
    Name directory_;
    Name foreign_;
};

}  // namespace Demo
