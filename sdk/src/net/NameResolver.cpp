// Owns the running lookups, at most kMostLookups, each with its own thread, which ends by itself.
// Must not connect (SocketWait does). Never waits with the lock held.
#include "net/NameResolver.h"

#include <Poco/Exception.h>
#include <Poco/Net/SocketAddress.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "net/DownloadError.h"
#include "net/SocketWait.h"
#include "sdk/files/FileDescriptor.h"

namespace SDK {

namespace {

using Poco::Net::IPAddress;

constexpr std::size_t kMostLookups = 8;

/// One lookup, shared by its thread and its callers.
struct Question {
    FileDescriptor answered{::eventfd(0, EFD_CLOEXEC)};  // readable once answered
    std::optional<IPAddress> address;                    // these two are written before that
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

}  // namespace

IPAddress NameResolver::Resolve(const std::string& host, int timeout_ms) {
    IPAddress address;
    if (IPAddress::tryParse(host, address)) return address;
    const std::shared_ptr<Question> question = Ask(host);
    WaitForDescriptor(question->answered.Get(), POLLIN, timeout_ms, "address of " + host);
    const std::lock_guard<std::mutex> lock(mutex);  // makes the thread's writes visible
    if (!question->address) throw DownloadError("no address of " + host + ": " + question->failure);
    return *question->address;
}

void NameResolver::SetLookup(Lookup lookup) {
    const std::lock_guard<std::mutex> lock(mutex);
    stand_in = std::move(lookup);
}

}  // namespace SDK
