// Owns: the look-ups under way, at most kMostLookups of them, each with its thread, which ends by
// itself. It must not connect (SocketWait does). Nothing but the look-up waits, and never with the
// lock held.
#include "net/NameResolver.h"

#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "net/DownloadError.h"
#include "sdk/files/FileDescriptor.h"
#include "sdk/text/StrUtils.h"
#include "sdk/time/CommandInterrupter.h"
#include "sdk/time/TimeUtils.h"

namespace SDK {

namespace {

using Poco::Net::IPAddress;

constexpr std::size_t kMostLookups = 8;

/// One look-up; shared by its thread and those who wait for it.
struct Question {
    FileDescriptor answered{::eventfd(0, EFD_CLOEXEC)};  // readable from the answer on
    std::optional<IPAddress> address;                    // these two: written before that
    std::string failure;
};

std::mutex mutex;  // guards the next two
std::map<std::string, std::shared_ptr<Question>> questions;
NameResolver::Lookup stand_in;

IPAddress AskSystem(const std::string& host) {
    return Poco::Net::SocketAddress(host, Poco::UInt16{0}).host();
}

void Answer(const std::string& host, const NameResolver::Lookup& lookup, Question& question) {
    try {
        question.address = lookup(host);
    } catch (const Poco::Exception& exception) {
        question.failure = exception.displayText();
    } catch (const std::exception& exception) {
        question.failure = exception.what();
    }
    {
        const std::lock_guard<std::mutex> lock(mutex);
        questions.erase(host);
    }
    ::eventfd_write(question.answered.Get(), 1);
}

std::shared_ptr<Question> Ask(const std::string& host) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (const auto found = questions.find(host); found != questions.end()) return found->second;
    if (questions.size() >= kMostLookups) {
        throw DownloadError("too many host names wait for the name servers");
    }
    auto question = std::make_shared<Question>();
    if (!question->answered.IsOpen()) throw DownloadError("no descriptor left");
    const NameResolver::Lookup lookup = stand_in ? stand_in : AskSystem;
    try {
        std::thread([host, lookup, question] { Answer(host, lookup, *question); }).detach();
    } catch (const std::system_error&) {
        throw DownloadError("no thread left to find the address of " + host);
    }
    questions[host] = question;
    return question;
}

void WaitForAnswer(const Question& question, const std::string& host, int timeout_ms) {
    const CommandInterrupter* interrupter = CommandInterrupter::Current();
    const std::int64_t deadline = TimeUtils::GetMonotonicMs() + timeout_ms;
    for (;;) {
        std::array<pollfd, 2> ready{
            {{question.answered.Get(), POLLIN, 0},
             {interrupter == nullptr ? -1 : interrupter->Descriptor(), POLLIN, 0}}};
        const std::int64_t left = std::max<std::int64_t>(0, deadline - TimeUtils::GetMonotonicMs());
        const int count = ::poll(ready.data(), ready.size(), static_cast<int>(left));
        if (count < 0 && errno != EINTR) throw DownloadError("poll failed");
        if (count > 0 && ready[1].revents != 0) throw DownloadError("it was interrupted");
        if (count > 0) return;
        if (left == 0) {
            throw DownloadError(
                StrUtils::Format("no address of %s within %d ms", host.c_str(), timeout_ms));
        }
    }
}

}  // namespace

IPAddress NameResolver::Resolve(const std::string& host, int timeout_ms) {
    IPAddress address;
    if (IPAddress::tryParse(host, address)) return address;
    const std::shared_ptr<Question> question = Ask(host);
    WaitForAnswer(*question, host, timeout_ms);
    const std::lock_guard<std::mutex> lock(mutex);  // what the thread wrote before is seen
    if (!question->address) throw DownloadError("no address of " + host + ": " + question->failure);
    return *question->address;
}

void NameResolver::SetLookup(Lookup lookup) {
    const std::lock_guard<std::mutex> lock(mutex);
    stand_in = std::move(lookup);
}

}  // namespace SDK
