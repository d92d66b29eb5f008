#include <sdk/files/PathUtils.h>
#include <sdk/text/StrUtils.h>

#include <fstream>
#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

using SDK::StrUtils;

/// The sections of the page that explain one word each begin with "### `word`".
constexpr char kTitle[] = "### `";

/// The word that the line is the title of; empty when it is none.
std::string TitleIn(const std::string& line) {
    const std::size_t end = line.rfind('`');
    if (!StrUtils::BeginsWith(line, kTitle) || end < sizeof(kTitle)) return "";
    return line.substr(sizeof(kTitle) - 1, end - sizeof(kTitle) + 1);
}

/// A line of the page as plain text: without marks of bold text and targets of links.
std::string Plain(const std::string& line) {
    std::string text;
    for (std::size_t at = 0; at < line.size(); ++at) {
        const std::size_t end = line.compare(at, 2, "](") == 0 ? line.find(')', at) : line.npos;
        if (end != line.npos) {
            at = end;
        } else if (line.compare(at, 2, "**") == 0) {
            ++at;
        } else if (line[at] != '[' || line.find("](", at) == line.npos) {
            text += line[at];
        }
    }
    return text;
}

/// Prints the section of the word, or all words when it is empty. False: there is no such section.
bool PrintSection(std::istream& page, const std::string& word) {
    bool is_found = false;
    bool is_inside = false;
    for (std::string line; std::getline(page, line);) {
        if (StrUtils::BeginsWith(line, "#")) {
            const std::string title = TitleIn(line);
            is_inside = !title.empty() && title == word;
            is_found = is_found || is_inside;
            if (is_inside || (word.empty() && !title.empty())) std::cout << title << "\n";
        } else if (is_inside) {
            std::cout << Plain(line) << "\n";
        }
    }
    return is_found || word.empty();
}

}  // namespace

int Explain(const std::string& word) {
    const std::string path = SDK::PathUtils::GetInstallationPath() + "doc/troubleshooting.md";
    std::ifstream page(path);
    if (!page) {
        std::cerr << "The page " << Printable(path) << " cannot be read." << std::endl;
        return kExitFailed;
    }
    if (PrintSection(page, word)) return kExitOk;
    std::cerr << "There is no explanation of \"" << Printable(word)
              << "\"; morvanectl explain lists all." << std::endl;
    return kExitUsage;
}

}  // namespace Ctl
