#pragma once

#include <cstdint>
#include <string>

namespace SDK {

/// Downloads files. Any thread; calls may run side by side, also to the same target.
class HttpUtils {
  public:
    static HttpUtils* GetInstance();

    /// Fetches `url` (http, https verified against the system's certificates or `ca_file`, or
    /// file:) to the file `target`, following redirects, never from https down to http or to file:.
    /// `sha256` is the expected digest in hex, either case; empty is a failure. Written to a
    /// temporary file beside `target` and renamed when the digest is right: on failure the old file
    /// stays as it was and nothing is left behind. `proxy_url` and `ca_file` may be empty. Ends
    /// early when the calling thread's CommandInterrupter is interrupted; only the way of https
    /// through a proxy is waited for, and a TLS record that has begun. 0 on success, otherwise -1;
    /// LastError tells why.
    int Download(const std::string& url, const std::string& target, const std::string& sha256,
                 const std::string& proxy_url, const std::string& ca_file);

    /// In words, why the calling thread's last Download failed; empty after a success.
    std::string LastError() const;

    struct Limits {
        int resolve_timeout_ms = 5000;  ///< for the address of a host name
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
