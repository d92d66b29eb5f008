#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

#include "sdk/commands/ExecuteCmdUtils.h"
#include "sdk/commands/RunningCommand.h"
#include "sdk/time/CommandInterrupter.h"
#include "support/TempDir.h"

namespace {

using SDK::CommandAnswer;
using SDK::ExecuteCmdUtils;
using Kind = SDK::CommandAnswer::Kind;
using Words = std::vector<std::string>;

constexpr std::size_t kMuch = 65536;
constexpr int kLongMs = 60000;

CommandAnswer Answer(Kind kind, const std::string& output, int exit_code = 0) {
    CommandAnswer answer;
    answer.kind = kind;
    answer.output = output;
    answer.exit_code = exit_code;
    return answer;
}

/// A program with a handler while the object lives.
class CommandHandlers : public ::testing::Test {
  protected:
    ~CommandHandlers() override { ExecuteCmdUtils::SetProgramHandler(program_, nullptr); }

    void Handle(const SDK::CommandHandler& handler) {
        ExecuteCmdUtils::SetProgramHandler(program_, handler);
    }
    /// Notes the words of each command and answers alike.
    void AnswerWith(Kind kind, const std::string& output, int exit_code = 0) {
        Handle([=](const Words& words) {
            seen_.push_back(words);
            return Answer(kind, output, exit_code);
        });
    }
    void WriteProgram(const std::string& path, const std::string& body) const {
        dir_.Write(path, "#!/bin/sh\n" + body);
        ::chmod(dir_.Path(path).c_str(), 0755);
    }
    bool HasRun() const { return std::filesystem::exists(dir_.Path("ran")); }
    int Run(const std::string& line) { return ExecuteCmdUtils::ExecuteCmd(line, output_, kMuch); }

    test::TempDir dir_;
    std::string program_ = dir_.Path("program");
    std::vector<Words> seen_;
    std::string output_;
};

TEST_F(CommandHandlers, Done_StandsForTheProgramInEveryForm) {
    AnswerWith(Kind::kDone, "0123456789", 23);
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd(" " + program_ + " -a \"b c\" ", output_, 4), 23);
    EXPECT_EQ(output_, "0123");
    int exit_code = 0;
    EXPECT_EQ(ExecuteCmdUtils::ExecuteCmd(program_, {"$x", ""}, kLongMs, exit_code, output_, kMuch),
              0);
    EXPECT_EQ(exit_code, 23);
    SDK::RunningCommand running({program_, "later"}, SDK::RunningCommand::kNoLimit);
    EXPECT_EQ(seen_, (std::vector<Words>{
                         {program_, "-a", "b c"}, {program_, "$x", ""}, {program_, "later"}}));
    EXPECT_EQ(running.Wait(exit_code, output_, kMuch), 0);
    EXPECT_EQ(output_, "0123456789");
    Handle(nullptr);
    EXPECT_EQ(Run(program_), 127);
    EXPECT_EQ(seen_.size(), 3U);
}

TEST_F(CommandHandlers, Run_StartsAsGivenOrSomethingElseInTheProgramsEnvironment) {
    WriteProgram("program", "echo \"$0 $1 $MARK\"");
    ExecuteCmdUtils::SetProgramEnvironment(program_, {"MARK=m"});
    AnswerWith(Kind::kRun, "");
    EXPECT_EQ(Run(program_ + " one"), 0);
    EXPECT_EQ(output_, program_ + " one m\n");
    Handle([](const Words&) {
        CommandAnswer answer;
        answer.arguments = {"/bin/sh", "-c", "echo $MARK; exit 5"};
        return answer;
    });
    EXPECT_EQ(Run(program_ + " one"), 5);
    EXPECT_EQ(output_, "m\n");
    ExecuteCmdUtils::SetProgramEnvironment(program_, {});
}

TEST_F(CommandHandlers, InheritedDescriptors_StandFromThreeOnAndNothingElse) {
    Handle([&](const Words&) {
        CommandAnswer answer;
        answer.arguments = {"/bin/sh", "-c",
                            "for fd in 3 4 5 6 7 8; do read -r line <&$fd; printf '%s ' $line; "
                            "done; [ -e /proc/$$/fd/9 ] && echo leaked"};
        // Opened in reverse order, so that source and target numbers overlap.
        for (const char* name : {"f", "e", "d", "c", "b", "a"}) {
            const std::string path = dir_.Write(name, std::string(name) + "\n");
            SDK::FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
            answer.inherited.insert(answer.inherited.begin(), std::move(descriptor));
        }
        return answer;
    });
    Run(program_);
    EXPECT_EQ(output_, "a b c d e f ");
    Handle([](const Words&) {
        CommandAnswer answer;
        answer.arguments = {"/bin/true"};
        answer.inherited.emplace_back(-1);
        return answer;
    });
    EXPECT_EQ(Run(program_), ExecuteCmdUtils::kStartFailed);
}

TEST_F(CommandHandlers, RefusalFailureAndInterruption_StartNothing) {
    WriteProgram("program", "touch " + dir_.Path("ran"));
    AnswerWith(Kind::kRefused, "not like this");
    EXPECT_EQ(Run(program_), ExecuteCmdUtils::kStartFailed);
    EXPECT_EQ(output_, "not like this");
    Handle([](const Words&) -> CommandAnswer { throw std::runtime_error("broken"); });
    EXPECT_EQ(Run(program_), ExecuteCmdUtils::kStartFailed);
    EXPECT_EQ(output_, "broken");
    SDK::CommandInterrupter interrupter;
    const SDK::CommandInterrupter::Scope scope(interrupter);
    Handle([&](const Words&) {
        interrupter.Interrupt();
        return Answer(Kind::kRefused, "gave up");
    });
    EXPECT_EQ(Run(program_), ExecuteCmdUtils::kInterrupted);
    AnswerWith(Kind::kDone, "");
    EXPECT_EQ(Run(program_), ExecuteCmdUtils::kInterrupted);
    EXPECT_TRUE(seen_.size() == 1 && !HasRun());
}

TEST_F(CommandHandlers, ProgramWithAHandler_NeverGetsToAShell) {
    AnswerWith(Kind::kRun, "");
    WriteProgram("program", "touch " + dir_.Path("ran"));
    for (const std::string& line :
         {program_ + ";true", program_ + " $HOME", program_ + " a\nb", program_ + " 'a'",
          "true && " + program_, "A=b " + program_, program_ + "\t`true`", "exec " + program_,
          "echo x >" + program_, "\n" + program_}) {
        EXPECT_EQ(Run(line), ExecuteCmdUtils::kStartFailed) << line;
        EXPECT_EQ(output_, "not given to a shell: " + program_) << line;
    }
    EXPECT_TRUE(seen_.empty() && !HasRun());
    ::unlink(program_.c_str());
    EXPECT_EQ(Run(program_), ExecuteCmdUtils::kStartFailed);
    EXPECT_EQ(output_, program_ + ": No such file or directory");
    WriteProgram("program-other", "exit 7");
    EXPECT_EQ(Run(program_ + "-other"), 7);
    EXPECT_EQ(Run("/bin/echo " + program_), 0);
}

TEST_F(CommandHandlers, ProgramWithABlank_IsNotRunByItsFirstWord) {
    WriteProgram("first", "touch " + dir_.Path("ran"));
    const std::string blank = dir_.Path("first part/program");
    ExecuteCmdUtils::SetProgramHandler(
        blank, [](const Words& words) { return Answer(Kind::kDone, words[1]); });
    EXPECT_EQ(Run(blank + " -a"), ExecuteCmdUtils::kStartFailed);
    EXPECT_FALSE(HasRun());
    EXPECT_EQ(Run("\"" + blank + "\" -a"), 0);
    EXPECT_EQ(output_, "-a");
    ExecuteCmdUtils::SetProgramHandler(blank, nullptr);
}

}  // namespace
