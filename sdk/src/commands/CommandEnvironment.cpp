// Owns the search path of commands and the variables of single programs. CommandLine decides
// whether a line needs a shell. Thread-safe by a lock.
#include "commands/CommandEnvironment.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <string_view>

#include "sdk/commands/CommandLine.h"
#include "sdk/files/PathUtils.h"
#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

constexpr const char* kDefaultSearchPath =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

std::mutex mutex;         // guards the next two
std::string search_path;  // empty: the default
std::map<std::string, std::vector<std::string>, std::less<>> program_variables;

std::vector<std::string> VariablesOf(std::string_view program) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = program_variables.find(program);
    return found == program_variables.end() ? std::vector<std::string>() : found->second;
}

bool IsPlainWord(const std::string& text) {
    return SplitPlainCommand("/ " + text) == std::vector<std::string>{"/", text};
}

/// True when a variable begins with `name`, which ends in "=".
bool Sets(const std::vector<std::string>& variables, const std::string& name) {
    return std::any_of(variables.begin(), variables.end(), [&](const std::string& variable) {
        return StrUtils::BeginsWith(variable, name);
    });
}

}  // namespace

void CommandEnvironment::SetSearchPath(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex);
    search_path = path;
}

void CommandEnvironment::SetProgramVariables(const std::string& program,
                                             const std::vector<std::string>& variables) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (variables.empty()) {
        program_variables.erase(program);
    } else {
        program_variables[program] = variables;
    }
}

std::vector<std::string> CommandEnvironment::Of(const std::string& program) {
    const std::string home = "HOME=" + PathUtils::GetInstallationPath() + "conf/home";
    const std::vector<std::string> own = VariablesOf(program);
    std::string path = "PATH=";
    {
        const std::lock_guard<std::mutex> lock(mutex);
        path += search_path.empty() ? kDefaultSearchPath : search_path;
    }
    std::vector<std::string> all;
    for (const std::string& variable : {path, std::string("LC_ALL=C"), home}) {
        if (!Sets(own, variable.substr(0, variable.find('=') + 1))) all.push_back(variable);
    }
    all.insert(all.end(), own.begin(), own.end());
    return all;
}

std::string CommandEnvironment::ShellLine(const std::string& command) {
    const std::size_t begin = command.find_first_not_of(" \t");
    if (begin == std::string::npos) return command;
    const std::size_t end = std::min(command.find_first_of(" \t\n;&|<>()", begin), command.size());
    const std::string_view program = std::string_view(command).substr(begin, end - begin);
    std::string line;
    for (const std::string& variable : VariablesOf(program)) {
        if (IsPlainWord(variable)) line += variable + " ";
    }
    return line + command;
}

}  // namespace SDK
