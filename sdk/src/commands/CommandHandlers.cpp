// Owns the handlers of programs. Must not run commands (RunningCommand does). Thread-safe: the lock
// is held for the lookup of a handler, never while one works.
#include "commands/CommandHandlers.h"

#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace SDK {

namespace {

std::mutex mutex;  // guards the next
std::map<std::string, std::shared_ptr<const CommandHandler>> handlers;

std::shared_ptr<const CommandHandler> HandlerOf(const std::string& program) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = handlers.find(program);
    return found == handlers.end() ? nullptr : found->second;
}

CommandAnswer Refusal(const std::string& why) {
    CommandAnswer answer;
    answer.kind = CommandAnswer::Kind::kRefused;
    answer.output = why;
    return answer;
}

}  // namespace

void CommandHandlers::Set(const std::string& program, CommandHandler handler) {
    std::shared_ptr<const CommandHandler> kept;
    if (handler) kept = std::make_shared<const CommandHandler>(std::move(handler));
    const std::lock_guard<std::mutex> lock(mutex);
    // Destroys the previous handler after the lock is released.
    if (kept == nullptr) {
        auto previous = handlers.extract(program);
        if (!previous.empty()) kept = std::move(previous.mapped());
    } else {
        std::swap(handlers[program], kept);
    }
}

std::optional<CommandAnswer> CommandHandlers::Ask(const std::vector<std::string>& arguments) {
    const auto handler = HandlerOf(arguments.front());
    if (handler == nullptr) return std::nullopt;
    try {
        return (*handler)(arguments);
    } catch (const std::exception& failure) {
        return Refusal(failure.what());
    } catch (...) {
        return Refusal("the handler failed");
    }
}

std::string CommandHandlers::NamedIn(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [program, handler] : handlers) {
        if (line.find(program) != std::string::npos) return program;
    }
    return "";
}

std::string CommandHandlers::Beginning(const std::string& line) {
    const std::size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string::npos) return "";
    const std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [program, handler] : handlers) {
        if (line.compare(begin, program.size(), program) != 0) continue;
        const std::size_t end = begin + program.size();
        if (end == line.size() || line[end] == ' ' || line[end] == '\t') return program;
    }
    return "";
}

}  // namespace SDK
