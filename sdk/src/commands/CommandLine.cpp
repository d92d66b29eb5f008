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

/// Reads the word at `place` and leaves `place` behind it; false when it needs a shell.
bool TakeWord(const std::string& command, std::size_t& place, std::string& word) {
    bool quoted = false;
    for (; place < command.size(); ++place) {
        const char letter = command[place];
        if (letter == '"') {
            quoted = !quoted;
        } else if (quoted ? IsPlainInQuotes(letter) : IsPlain(letter)) {
            word += letter;
        } else {
            break;
        }
    }
    return !quoted && (place == command.size() || IsBlank(command[place]));
}

/// "name=value" before the program would be an assignment.
bool IsProgram(const std::string& word) {
    return word.find('/') != std::string::npos && word.find('=') == std::string::npos;
}

}  // namespace

std::vector<std::string> SplitPlainCommand(const std::string& command) {
    std::vector<std::string> words;
    std::size_t place = 0;
    while (place < command.size()) {
        if (IsBlank(command[place])) {
            ++place;
            continue;
        }
        std::string word;
        if (!TakeWord(command, place, word)) return {};
        words.push_back(std::move(word));
    }
    if (words.empty() || !IsProgram(words.front())) return {};
    return words;
}

}  // namespace SDK
