#pragma once

#include <Poco/URI.h>

#include <cstdint>
#include <string>

#include "files/AtomicFile.h"
#include "sdk/files/Sha256.h"
#include "sdk/net/HttpUtils.h"

namespace SDK {

/// What to download, and where to; see HttpUtils::Download.
struct DownloadOrder {
    std::string url;
    std::string target;
    std::string sha256;
    std::string proxy_url;
    std::string ca_file;
};

/// One download; leaves nothing behind unless Run succeeds. One use; not thread-safe.
class Download {
  public:
    Download(const DownloadOrder& order, const HttpUtils::Limits& limits);

    /// Blocks. Throws DownloadError or Poco's exceptions.
    void Run();

  private:
    void FetchFile(const Poco::URI& url);
    void FollowHttp(Poco::URI url);
    bool FetchHttp(const Poco::URI& url, std::string& location);
    void Take(const char* data, std::size_t size);
    void Finish(const std::string& expected);

    const DownloadOrder& order_;
    const HttpUtils::Limits limits_;
    AtomicFile file_;
    Sha256 digest_;
    std::int64_t taken_ = 0;
};

/// The URL without user name and password; unchanged when it cannot be parsed.
std::string WithoutUserInfo(const std::string& url);

}  // namespace SDK
