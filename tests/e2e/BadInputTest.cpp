#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/AgentProcess.h"

namespace {

using test::TempDir;

/// One command of morvanectl as its own help describes it.
struct Command {
    std::string words;               ///< "policy apply"
    std::string arguments;           ///< a value for each positional
    std::set<int> codes;             ///< the documented exit codes
    bool has_command_codes = false;  ///< also those of a command that it runs
};

struct Ending {
    int code = -1;  ///< as a shell tells it
    std::string out;
    std::string err;
};

/// Every command of morvanectl, as --help names it, with what no command must stumble over.
class BadInput : public ::testing::Test {
  protected:
    void SetUp() override {
        site_.Write("index.html", "page");
        files_.Write("empty.json", "{}");
        // The test with another user.
        for (const TempDir* one : {&files_, &site_}) ::chmod(one->Path().c_str(), 0755);
        ::chmod(agent_.Path().c_str(), 0755);
        Collect("");
        ASSERT_GT(commands_.size(), 25U);
    }

    /// Runs the program by a shell, with `redirections` behind it.
    Ending Run(const std::string& words, const std::string& redirections = "",
               const std::string& before = "") const {
        const std::string out = files_.Path("out");
        const std::string err = files_.Path("err");
        const std::string line = "cd " + files_.Path() + "; exec </dev/null >" + out + " 2>" + err +
                                 "; " + before + " timeout -k 2 10 " +
                                 agent_.Path("bin/morvanectl") + " " + words + " " + redirections;
        const int status = std::system(line.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                TempDir::Read(out), TempDir::Read(err)};
    }

    /// The names in a section of a help.
    static std::vector<std::string> Section(const std::string& help, const std::string& title) {
        std::istringstream in(help);
        std::vector<std::string> names;
        bool is_inside = false;
        for (std::string line; std::getline(in, line);) {
            if (line == title + ":") {
                is_inside = true;
            } else if (line.empty()) {
                is_inside = false;
            } else if (is_inside && line.compare(0, 2, "  ") == 0 && line[2] != ' ') {
                names.push_back(line.substr(2, line.find_first_of(" \n", 2) - 2));
            }
        }
        return names;
    }

    void Collect(const std::string& words) {
        const Ending help = Run(words + " --help");
        ASSERT_EQ(help.code, 0) << words << help.err;
        const std::vector<std::string> below = Section(help.out, "Subcommands");
        const std::vector<std::string> positionals = Section(help.out, "Positionals");
        for (const std::string& one : below) Collect(words.empty() ? one : words + " " + one);
        if (below.empty() || !positionals.empty()) Take(words, help.out, positionals);
    }

    void Take(const std::string& words, const std::string& help,
              const std::vector<std::string>& positionals) {
        Command command;
        command.words = words;
        const std::map<std::string, std::string> values = {{"PATH", site_.Path()},
                                                           {"DIR", site_.Path()},
                                                           {"FEATURE", "sentrel_feature"},
                                                           {"ROLE", "client"},
                                                           {"ID", "0123456789ab"},
                                                           {"FILE", files_.Path("empty.json")},
                                                           {"N", "1"},
                                                           {"A", "1"},
                                                           {"B", "2"},
                                                           {"CHANNEL", "mail"},
                                                           {"WORD", "held"},
                                                           {"MODE", "heal"},
                                                           {"COMMAND", "-- true"}};
        for (const std::string& one : positionals) {
            const auto value = values.find(one);
            ASSERT_NE(value, values.end()) << words << ": add a value for " << one << " above";
            command.arguments += " " + value->second;
        }
        // Lines end anywhere.
        const std::string text = std::regex_replace(help, std::regex("\\s+"), " ");
        const std::size_t footer = text.find("Exit codes:");
        ASSERT_NE(footer, std::string::npos) << words << " does not document its exit codes";
        const std::string codes = text.substr(footer);
        const std::regex number("\\b[0-9]+\\b");
        for (std::sregex_iterator at(codes.begin(), codes.end(), number), end; at != end; ++at) {
            command.codes.insert(std::stoi(at->str()));
        }
        command.has_command_codes = codes.find("the code of COMMAND") != std::string::npos;
        commands_.push_back(command);
    }

    static void ExpectOrderly(const Command& command, const Ending& end, const std::string& where) {
        const bool is_known = command.codes.count(end.code) > 0;
        EXPECT_TRUE(is_known) << command.words << where << " ended with " << end.code << ": "
                              << end.err;
        EXPECT_EQ(end.err.find("terminate called"), std::string::npos) << command.words << end.err;
    }

    /// Every command as it is, with each of `streams` in its bad state, and with a reader that
    /// goes.
    void TryAll(const std::string& situation, const std::vector<std::string>& streams) {
        for (const Command& command : commands_) {
            if (command.words == "console") continue;  // goes on until it is interrupted
            const std::string words = command.words + command.arguments;
            const Ending plain = Run(words);
            ExpectOrderly(command, plain, situation);
            EXPECT_FALSE(plain.code != 0 && plain.out.empty() && plain.err.empty())
                << command.words << situation << " says nothing, code " << plain.code;
            for (const std::string& stream : streams) {
                const Ending end = Run(words, stream);
                ExpectOrderly(command, end, situation + " " + stream);
                const bool is_lost = stream.find(">/dev/full") == 0 || stream.find(">&-") == 0;
                if (!is_lost || plain.out.empty()) continue;
                EXPECT_NE(end.code, 0) << command.words << situation << " " << stream;
            }
            const Ending piped = Run(
                "", "",
                "{ " + agent_.Path("bin/morvanectl") + " " + words + "; echo $? >&2; } | : ; :");
            EXPECT_EQ(piped.err.find("141"), std::string::npos) << command.words << piped.err;
        }
    }

    test::AgentProcess agent_;
    TempDir site_;
    TempDir files_;
    std::vector<Command> commands_;
};

TEST_F(BadInput, WrongArguments_EndWithTwoAndASentence) {
    for (const Command& command : commands_) {
        const Ending end = Run(command.words + " --no-such-option");
        EXPECT_EQ(end.code, 2) << command.words;
        EXPECT_FALSE(end.err.empty()) << command.words;
        EXPECT_EQ(end.out, "") << command.words;
    }
    EXPECT_EQ(Run("").code, 2);
    EXPECT_EQ(Run("no-such-command").code, 2);
    EXPECT_EQ(Run("--socket").code, 2);
}

TEST_F(BadInput, WithoutAnAgent_EachCommandEndsInOrder) {
    TryAll(" without an agent", {});
}

TEST_F(BadInput, WithAnAgent_EachCommandEndsInOrder) {
    ASSERT_TRUE(agent_.Start());
    TryAll(" with an agent", {">/dev/full", ">&-", ">&- 2>&- <&-"});
    for (const Command& command : commands_) {
        if (command.words == "console") continue;
        const Ending end = Run(command.words + command.arguments, "",
                               "setpriv --reuid=65534 --regid=65534 --clear-groups");
        ExpectOrderly(command, end, " without rights");
        EXPECT_FALSE(end.code != 0 && end.out.empty() && end.err.empty()) << command.words;
    }
    EXPECT_EQ(agent_.Stop(), 0);
}

/// An agent that takes requests and does not answer.
TEST_F(BadInput, Interrupt_EndsEachCommand) {
    ASSERT_TRUE(agent_.Start());
    agent_.Signal(SIGSTOP);
    std::string all;
    for (std::size_t i = 0; i < commands_.size(); ++i) {
        all += "{ timeout --preserve-status -k 5 -s INT 1 " + agent_.Path("bin/morvanectl") + " " +
               commands_[i].words + commands_[i].arguments +
               " </dev/null >/dev/null 2>&1; echo $? >" + files_.Path("code." + std::to_string(i)) +
               "; } & ";
    }
    EXPECT_EQ(std::system((all + "wait").c_str()), 0);
    agent_.Signal(SIGCONT);
    for (std::size_t i = 0; i < commands_.size(); ++i) {
        Ending end;
        end.code = std::atoi(TempDir::Read(files_.Path("code." + std::to_string(i))).c_str());
        Command command = commands_[i];
        command.codes.insert(130);
        ExpectOrderly(command, end, " interrupted");
    }
    EXPECT_TRUE(agent_.Status().isObject());
    EXPECT_EQ(agent_.Stop(), 0);
}

}  // namespace
