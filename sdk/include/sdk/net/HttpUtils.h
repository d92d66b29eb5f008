#pragma once

#include <cstdint>
#include <string>

namespace SDK {

/// Downloads files. Thread-safe; calls may run at the same time, also with the same target.
class HttpUtils {
  public:
    static HttpUtils* GetInstance();

    /// Downloads `url` (http:, file:, or https: verified against the system's certificates or
    /// `ca_file`) to the file `target`. Follows redirects, but never from https to http or to file.
    /// `sha256` is the expected digest in hex, either case; empty is a failure. `proxy_url` and
    /// `ca_file` may be empty.
    ///
    /// Writes a temporary file beside `target` and renames it when the digest matches; a failure
    /// leaves the old file and nothing else. Blocks; ends early when the calling thread's
    /// CommandInterrupter is interrupted, except during the connection to https through a proxy and
    /// inside a TLS record. 0 on success, else -1; LastError gives the reason.
    int Download(const std::string& url, const std::string& target, const std::string& sha256,
                 const std::string& proxy_url, const std::string& ca_file);

    /// The reason why the calling thread's last Download failed; empty after a success.
    std::string LastError() const;

    struct Limits {
        int resolve_timeout_ms = 5000;  ///< to find the address of a host name
        int connect_timeout_ms = 10000;
        int stall_timeout_ms = 30000;  ///< longest wait for the next bytes
        std::int64_t max_bytes = 512LL * 1024 * 1024;
        int max_redirects = 5;
    };
    void SetLimits(const Limits& limits);

  private:
    HttpUtils() = default;
};

}  // namespace SDK
