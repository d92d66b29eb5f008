#include <CommandLineText.h>

namespace Engine {

namespace {

std::string NameOf(char c) {
    switch (c) {
        case ' ':
            return "a blank";
        case '\t':
            return "a tab";
        case '\n':
            return "a line end";
        default:
            break;
    }
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ' || byte == 0x7F) return "a control character";
    return std::string("the character ") + c;
}

std::string FirstOf(const std::string& text, const std::string& forbidden) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte == 0x7F || forbidden.find(c) != std::string::npos) return NameOf(c);
    }
    return "";
}

}  // namespace

std::string WhatBreaksPath(const std::string& path) {
    if (!path.empty() && path.front() == '-') return "a leading -";
    return FirstOf(path, " \"'\\$`;&|<>()*?[]#~!{}");
}

std::string WhatBreaksExclusion(const std::string& exclusion) {
    return FirstOf(exclusion, "\"\\$`*?[]");
}

}  // namespace Engine
