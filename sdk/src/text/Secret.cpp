// Reads passwords; owns none. Must not keep or print one, or take one from the command line, which
// every user of the host can read. OpenSSL's prompt handles the terminal and restores the echo when
// a signal ends it.
#include <openssl/crypto.h>
#include <openssl/ui.h>
#include <sdk/text/Secret.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

namespace SDK {

namespace {

constexpr int kMaxPassword = 511;
constexpr std::size_t kMaxLine = 4096;

using Entry = std::array<char, kMaxPassword + 1>;

bool AskTwice(const std::string& prompt, std::string& password, std::string& error) {
    Entry first{};
    Entry second{};
    const std::unique_ptr<UI, decltype(&UI_free)> dialogue(UI_new(), &UI_free);
    const bool taken =
        dialogue != nullptr &&
        UI_add_input_string(dialogue.get(), prompt.c_str(), 0, first.data(), 1, kMaxPassword) > 0 &&
        UI_add_verify_string(dialogue.get(), prompt.c_str(), 0, second.data(), 1, kMaxPassword,
                             first.data()) > 0 &&
        UI_process(dialogue.get()) == 0;
    if (taken) {
        password = first.data();
    } else {
        error = "No password was set: it was not typed twice the same, with 1 to 511 bytes.";
    }
    OPENSSL_cleanse(first.data(), first.size());
    OPENSSL_cleanse(second.data(), second.size());
    return taken;
}

bool ReadLine(std::string& line, std::string& error) {
    line.reserve(kMaxLine + 1);  // growing would leave copies in memory
    while (line.size() <= kMaxLine) {
        char next = 0;
        const ssize_t count = ::read(STDIN_FILENO, &next, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            error = std::string("Standard input cannot be read: ") + std::strerror(errno) + ".";
            return false;
        }
        if (count == 0 || next == '\n') return true;
        line += next;
    }
    return true;
}

}  // namespace

bool ReadPassword(const std::string& prompt, std::string& password, std::string& error) {
    const bool terminal = ::isatty(STDIN_FILENO) != 0;
    return terminal ? AskTwice(prompt, password, error) : ReadLine(password, error);
}

void EraseSecret(std::string& secret) {
    OPENSSL_cleanse(secret.data(), secret.size());
    secret.clear();
}

}  // namespace SDK
