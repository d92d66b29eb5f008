#include "sdk/commands/CommandLine.h"

#include <cstring>

namespace SDK {

namespace {

bool IsBlank(char letter) {
    return letter == ' ' || letter == '\t';
}

bool IsPlain(char letter) {
    const auto byte = static_cast<unsigned char>(letter);
    if (byte >= 0x80) return true;
    if (byte >= '0' && byte <= '9') return true;
    if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z')) return true;
    return byte != 0 && std::strchr("_./:,@%+=-", byte) != nullptr;
}

bool IsPlainInQuotes(char letter) {
    return letter != '\0' && std::strchr("$`\\\"", letter) == nullptr;
}

/// Reads the word at `position` and moves `position` behind it; false when the word needs a shell.
bool ReadWord(const std::string& command, std::size_t& position, std::string& word) {
    bool quoted = false;
    for (; position < command.size(); ++position) {
        const char letter = command[position];
        if (letter == '"') {
            quoted = !quoted;
        } else if (quoted ? IsPlainInQuotes(letter) : IsPlain(letter)) {
            word += letter;
        } else {
            break;
        }
    }
    return !quoted && (position == command.size() || IsBlank(command[position]));
}

/// "name=value" before the program would be an assignment.
bool IsProgram(const std::string& word) {
    return word.find('/') != std::string::npos && word.find('=') == std::string::npos;
}

}  // namespace

std::vector<std::string> SplitPlainCommand(const std::string& command) {
    std::vector<std::string> words;
    std::size_t position = 0;
    while (position < command.size()) {
        if (IsBlank(command[position])) {
            ++position;
            continue;
        }
        std::string word;
        if (!ReadWord(command, position, word)) return {};
        words.push_back(std::move(word));
    }
    if (words.empty() || !IsProgram(words.front())) return {};
    return words;
}

}  // namespace SDK
