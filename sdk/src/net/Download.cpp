// Owns the temporary file and the digest of one download. Must not open connections (HttpSession
// does). Runs on the caller's thread; Finish renames the file to the target.
#include "net/Download.h"

#include <Poco/Net/HTTPResponse.h>
#include <Poco/String.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <istream>
#include <system_error>

#include "net/DownloadError.h"
#include "net/HttpSession.h"
#include "net/SigPipeGuard.h"
#include "sdk/text/StrUtils.h"

namespace SDK {

namespace {

using Poco::Net::HTTPResponse;

constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kDigestLength = 64;

[[noreturn]] void FailWithErrno(const std::string& what) {
    throw DownloadError(what + ": " + std::generic_category().message(errno));
}

bool IsHttp(const Poco::URI& url) {
    return url.getScheme() == "http" || url.getScheme() == "https";
}

bool IsRedirect(HTTPResponse::HTTPStatus status) {
    return status == HTTPResponse::HTTP_MOVED_PERMANENTLY || status == HTTPResponse::HTTP_FOUND ||
           status == HTTPResponse::HTTP_SEE_OTHER ||
           status == HTTPResponse::HTTP_TEMPORARY_REDIRECT ||
           status == HTTPResponse::HTTP_PERMANENT_REDIRECT;
}

bool IsDigest(const std::string& text) {
    return text.size() == kDigestLength &&
           text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

std::string WithoutUserInfo(const std::string& url) {
    try {
        Poco::URI parsed(url);
        if (parsed.getUserInfo().empty()) return url;
        parsed.setUserInfo("");
        return parsed.toString();
    } catch (const Poco::Exception&) {
        return url;
    }
}

Download::Download(const DownloadOrder& order, const HttpUtils::Limits& limits)
    : order_(order), limits_(limits), file_(order.target) {}

void Download::Run() {
    const std::string expected = Poco::toLower(order_.sha256);
    if (!IsDigest(expected)) throw DownloadError("the expected SHA-256 is missing or malformed");
    const Poco::URI url(order_.url);
    if (!IsHttp(url) && url.getScheme() != "file") {
        throw DownloadError("only http, https and file are supported");
    }
    if (file_.Open() != 0) FailWithErrno("cannot write beside " + order_.target);
    if (IsHttp(url)) {
        FollowHttp(url);
    } else {
        FetchFile(url);
    }
    Finish(expected);
}

void Download::FetchFile(const Poco::URI& url) {
    if (!url.getHost().empty() && url.getHost() != "localhost") {
        throw DownloadError("a file: URL names a file of this host only");
    }
    // O_NONBLOCK: opening a FIFO would wait for a writer.
    const FileDescriptor source(
        ::open(url.getPath().c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info {};
    if (!source.IsOpen() || ::fstat(source.Get(), &info) != 0) FailWithErrno("cannot read it");
    if (!S_ISREG(info.st_mode)) throw DownloadError("it is no regular file");
    std::array<char, kChunk> buffer{};
    ssize_t got = 0;
    while ((got = ::read(source.Get(), buffer.data(), buffer.size())) > 0) {
        Take(buffer.data(), static_cast<std::size_t>(got));
    }
    if (got < 0) FailWithErrno("cannot read it");
}

void Download::FollowHttp(Poco::URI url) {
    for (int redirects = 0; redirects <= limits_.max_redirects; ++redirects) {
        std::string location;
        if (FetchHttp(url, location)) return;
        if (location.empty()) throw DownloadError("the server redirects without a target");
        const Poco::URI next(url, location);
        if (!IsHttp(next) || (url.getScheme() == "https" && next.getScheme() != "https")) {
            throw DownloadError("a redirect to " + WithoutUserInfo(next.toString()) +
                                " is refused");
        }
        url = next;
    }
    throw DownloadError(StrUtils::Format("more than %d redirects", limits_.max_redirects));
}

/// True when the file was received; false when `location` names another address.
bool Download::FetchHttp(const Poco::URI& url, std::string& location) {
    const SigPipeGuard guard;
    HttpSession session(url, order_.proxy_url, order_.ca_file, limits_);
    HTTPResponse response;
    std::istream& body = session.Get(url, response);
    if (IsRedirect(response.getStatus())) {
        location = response.get("Location", "");
        return false;
    }
    if (response.getStatus() != HTTPResponse::HTTP_OK) {
        throw DownloadError(StrUtils::Format("the server answered %d %s",
                                             static_cast<int>(response.getStatus()),
                                             response.getReason().c_str()));
    }
    const Poco::Int64 length = response.hasContentLength() ? response.getContentLength64() : -1;
    if (length > limits_.max_bytes) throw DownloadError("the file is larger than allowed");
    std::array<char, kChunk> buffer{};
    while (length < 0 || taken_ < length) {
        const std::size_t got = session.Read(body, buffer.data(), buffer.size());
        if (got == 0) break;
        Take(buffer.data(), got);
    }
    if (length >= 0 && taken_ != length) throw DownloadError("the answer ended too early");
    return true;
}

void Download::Take(const char* data, std::size_t size) {
    taken_ += static_cast<std::int64_t>(size);
    if (taken_ > limits_.max_bytes) throw DownloadError("the file is larger than allowed");
    digest_.Update(data, size);
    if (file_.Write(data, size) != 0) FailWithErrno("cannot write beside " + order_.target);
}

void Download::Finish(const std::string& expected) {
    const std::string found = digest_.Hex();
    if (found != expected) {
        throw DownloadError("its SHA-256 is " + found + " and not " + expected);
    }
    if (file_.Commit() != 0) FailWithErrno("cannot replace " + order_.target);
}

}  // namespace SDK
