// Owns the limits and each thread's last error. Download does the work on the caller's thread; its
// exceptions end here.
#include "sdk/net/HttpUtils.h"

#include <Poco/Exception.h>

#include <exception>
#include <mutex>

#include "net/Download.h"
#include "net/DownloadError.h"

namespace SDK {

namespace {

std::mutex limits_mutex;
HttpUtils::Limits current_limits;

thread_local std::string last_error;

HttpUtils::Limits CurrentLimits() {
    const std::lock_guard<std::mutex> lock(limits_mutex);
    return current_limits;
}

int Fail(const std::string& url, const std::string& cause) {
    last_error = "cannot download " + WithoutUserInfo(url) + ": " + cause;
    return -1;
}

}  // namespace

HttpUtils* HttpUtils::GetInstance() {
    static HttpUtils instance;
    return &instance;
}

int HttpUtils::Download(const std::string& url, const std::string& target,
                        const std::string& sha256, const std::string& proxy_url,
                        const std::string& ca_file) {
    try {
        const DownloadOrder order{url, target, sha256, proxy_url, ca_file};
        SDK::Download(order, CurrentLimits()).Run();
    } catch (const Poco::Exception& exception) {
        return Fail(url, exception.displayText());
    } catch (const std::exception& exception) {
        return Fail(url, exception.what());
    }
    last_error.clear();
    return 0;
}

std::string HttpUtils::LastError() const {
    return last_error;
}

void HttpUtils::SetLimits(const Limits& limits) {
    const std::lock_guard<std::mutex> lock(limits_mutex);
    current_limits = limits;
}

}  // namespace SDK
