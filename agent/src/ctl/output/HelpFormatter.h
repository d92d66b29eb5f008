#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace Ctl {

/// Help texts for a terminal of 80 columns: the meanings of options and commands, and what stands
/// below them, are wrapped at blanks. Not thread-safe.
class HelpFormatter : public CLI::Formatter {
  public:
    std::string make_option_desc(const CLI::Option* option) const override;
    std::string make_subcommand(const CLI::App* command) const override;
    std::string make_footer(const CLI::App* app) const override;
};

}  // namespace Ctl
