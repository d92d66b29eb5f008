#pragma once

#include <string>
#include <vector>

namespace Demo {

/// Objects of a site whose names would do something if a shell, or a program that splits a command
/// line, read them. What they would do is harmless and leaves a mark: each name that holds a
/// command makes a file of its own in the folder of marks. One thread.
class OddNames {
  public:
    struct Name {
        std::string what;  ///< what is odd about it, in a few words
        std::string path;  ///< absolute
        std::string mark;  ///< the file that its command makes; empty: it holds none
    };

    /// `marks` is the folder for the marks; both without a trailing "/".
    OddNames(const std::string& site, const std::string& marks);

    /// Makes the pages and the directory with two pages; what `Foreign` names is not made. The
    /// reason when that failed, else empty.
    std::string Make() const;

    /// True when they were made in this site.
    bool AreThere() const;

    /// Pages whose names hold blanks and quotes, and pages with worse names.
    const std::vector<std::string>& Quoted() const { return quoted_; }
    const std::vector<Name>& Pages() const { return pages_; }
    const Name& Directory() const { return directory_; }
    const Name& Foreign() const { return foreign_; }

    /// The marks that are there: of each, a shell has run the command.
    std::vector<std::string> Run() const;

  private:
    Name WithCommand(const std::string& what, const std::string& before, const std::string& after);

    const std::string home_;
    const std::string marks_;
    int commands_ = 0;
    std::vector<std::string> quoted_;
    std::vector<Name> pages_;
    Name directory_;
    Name foreign_;
};

}  // namespace Demo
