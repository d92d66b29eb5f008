#include "ctl/output/HelpFormatter.h"

#include <sstream>

namespace Ctl {

namespace {

constexpr std::size_t kColumns = 79;  ///< a full last column would wrap on some terminals

/// `text` with line ends in place of blanks, so that no line is longer unless a word is. Line ends
/// in `text` stay.
std::string Wrapped(const std::string& text, std::size_t width) {
    std::string wrapped;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::size_t column = 0;
        std::istringstream words(line);
        if (!wrapped.empty()) wrapped += '\n';
        for (std::string word; words >> word;) {
            const bool fits = column + 1 + word.size() <= width;
            if (column > 0) wrapped += fits ? ' ' : '\n';
            column = column > 0 && fits ? column + 1 + word.size() : word.size();
            wrapped += word;
        }
    }
    return wrapped;
}

}  // namespace

std::string HelpFormatter::make_option_desc(const CLI::Option* option) const {
    return Wrapped(option->get_description(), kColumns - column_width_);
}

std::string HelpFormatter::make_subcommand(const CLI::App* command) const {
    std::stringstream out;
    CLI::detail::format_help(out, command->get_display_name(true),
                             Wrapped(command->get_description(), kColumns - column_width_),
                             column_width_);
    return out.str();
}

std::string HelpFormatter::make_footer(const CLI::App* app) const {
    const std::string footer = app->get_footer();
    return footer.empty() ? "" : Wrapped(footer, kColumns) + "\n";
}

}  // namespace Ctl
