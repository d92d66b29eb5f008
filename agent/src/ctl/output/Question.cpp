#include "ctl/output/Question.h"

#include <unistd.h>

#include <iostream>

namespace Ctl {

bool IsAtTerminal() {
    return ::isatty(STDIN_FILENO) != 0 && ::isatty(STDERR_FILENO) != 0;
}

std::string AskLine(const std::string& question) {
    std::cerr << question << " " << std::flush;
    std::string line;
    if (!std::getline(std::cin, line)) std::cerr << std::endl;
    return line;
}

bool Confirm(const std::string& question) {
    const std::string line = AskLine(question + " [y/N]");
    return line == "y" || line == "yes";
}

}  // namespace Ctl
