// Owns: the search path of commands and the variables of single programs. Whether a line needs a
// shell is CommandLine's to say. Any thread, under a lock.
#include "CommandEnvironment.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <string_view>

#include "CommandLine.h"
#include "sdk/PathUtils.h"

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
    const std::string home = PathUtils::GetInstallationPath() + "conf/home";
    std::vector<std::string> variables = VariablesOf(program);
    const std::lock_guard<std::mutex> lock(mutex);
    variables.insert(variables.begin(),
                     {"PATH=" + (search_path.empty() ? kDefaultSearchPath : search_path),
                      "LC_ALL=C", "HOME=" + home});
    return variables;
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
