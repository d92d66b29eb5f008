#include "who/process/CommandLine.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

namespace Sentry {

namespace {

constexpr std::string_view kHidden = "***";
constexpr std::array<std::string_view, 13> kSecretNames{
    "password", "passwd", "passphrase", "pwd",        "token",         "secret",    "api_key",
    "api-key",  "apikey", "access_key", "access-key", "authorization", "credential"};
/// Programs whose option -p holds a password.
constexpr std::array<std::string_view, 4> kShortPassword{"mysql", "mariadb", "sshpass", "ldap"};

bool NamesSecret(std::string_view name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::any_of(kSecretNames.begin(), kSecretNames.end(), [&](std::string_view secret) {
        return lower.find(secret) != std::string::npos;
    });
}

bool IsQuote(char c) {
    return c == '"' || c == '\'';
}

/// Hides what secrets a command line holds, word by word: a script in one argument is looked
/// through, too.
class SecretCut {
  public:
    std::string Argument(std::string_view argument) {
        if (next_is_secret_) {
            next_is_secret_ = false;
            return std::string(kHidden);
        }
        std::string text;
        while (!argument.empty()) {
            const std::size_t begin =
                std::min(argument.find_first_not_of(kBlanks), argument.size());
            text += argument.substr(0, begin);
            argument.remove_prefix(begin);
            const std::size_t end = std::min(argument.find_first_of(kBlanks), argument.size());
            if (end > 0) text += Word(argument.substr(0, end));
            argument.remove_prefix(end);
        }
        open_quote_ = 0;
        return text;
    }

  private:
    static constexpr std::string_view kBlanks = " \t\r\n";

    std::string Word(std::string_view word) {
        if (is_first_) {
            is_first_ = false;
            const std::string_view name = word.substr(word.rfind('/') + 1);
            has_short_ = std::any_of(kShortPassword.begin(), kShortPassword.end(),
                                     [&](auto known) { return name.rfind(known, 0) == 0; });
            return std::string(word);
        }
        if (open_quote_ != 0) {
            if (word.back() == open_quote_) open_quote_ = 0;
            return "";
        }
        if (next_is_secret_) {
            next_is_secret_ = false;
            return Hide(word);
        }
        if (next_is_user_) {
            next_is_user_ = false;
            const std::size_t colon = word.find(':');
            if (colon != std::string_view::npos) return Cut(word, colon + 1);
        }
        return Judge(word);
    }

    std::string Judge(std::string_view word) {
        if (word == "-u" || word == "--user") next_is_user_ = true;
        if (has_short_ && word.rfind("-p", 0) == 0) {
            next_is_secret_ = word.size() == 2;
            return word.size() == 2 ? std::string(word) : Cut(word, 2);
        }
        const std::size_t address = word.find("://");
        if (address != std::string_view::npos) return Url(word, address + 3);
        const std::size_t sign = word.find_first_of("=:");
        if (sign == std::string_view::npos) {
            const std::size_t letter = word.find_first_not_of("\"'");
            const bool is_option = letter != std::string_view::npos && word[letter] == '-';
            next_is_secret_ = NamesSecret(word) && (is_option || IsBearer(word));
            return std::string(word);
        }
        if (!NamesSecret(word.substr(0, sign))) return std::string(word);
        next_is_secret_ = sign + 1 == word.size();
        return next_is_secret_ ? std::string(word) : Cut(word, sign + 1);
    }

    static bool IsBearer(std::string_view word) { return word == "Bearer" || word == "bearer"; }

    /// The word with everything behind `begin` hidden.
    std::string Cut(std::string_view word, std::size_t begin) {
        return std::string(word.substr(0, begin)) + Hide(word.substr(begin));
    }

    std::string Hide(std::string_view word) {
        // "Authorization: Bearer TOKEN"
        if (IsBearer(word) || word == "Basic") {
            next_is_secret_ = true;
            return std::string(word);
        }
        const bool is_open = !word.empty() && IsQuote(word.front()) &&
                             (word.size() == 1 || word.back() != word.front());
        if (is_open) open_quote_ = word.front();
        return std::string(kHidden);
    }

    /// Hides the password of "user:password@host", and values of a query.
    std::string Url(std::string_view word, std::size_t host) {
        const std::size_t end = std::min(word.find_first_of("/?#", host), word.size());
        const std::size_t at = word.substr(0, end).rfind('@');
        std::string text(word.substr(0, host));
        if (at != std::string_view::npos && at > host) {
            const std::size_t colon = word.find(':', host);
            const bool has_password = colon != std::string_view::npos && colon < at;
            text += word.substr(host, has_password ? colon + 1 - host : 0);
            text += kHidden;
            host = at;
        }
        std::string_view rest = word.substr(host);
        while (!rest.empty()) {
            const std::size_t next = std::min(rest.find_first_of("?&", 1), rest.size());
            const std::string_view part = rest.substr(0, next);
            const std::size_t sign = part.find('=');
            const bool is_secret =
                sign != std::string_view::npos && NamesSecret(part.substr(0, sign));
            text += is_secret ? part.substr(0, sign + 1) : part;
            if (is_secret) text += kHidden;
            rest.remove_prefix(next);
        }
        return text;
    }

    bool is_first_ = true;
    bool has_short_ = false;
    bool next_is_secret_ = false;
    bool next_is_user_ = false;
    char open_quote_ = 0;
};

}  // namespace

std::string SafeCommandLine(std::string_view arguments) {
    SecretCut cut;
    std::string line;
    while (!arguments.empty() && line.size() <= kMostCommandLine) {
        const std::size_t end = std::min(arguments.find('\0'), arguments.size());
        if (!line.empty()) line += ' ';
        line += cut.Argument(arguments.substr(0, end));
        arguments.remove_prefix(std::min(end + 1, arguments.size()));
    }
    line.resize(std::min(line.size(), kMostCommandLine));
    return line;
}

}  // namespace Sentry
