#pragma once

#include <stdexcept>

namespace SDK {

/// The reason why a download failed. Thrown and caught within this library.
class DownloadError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace SDK
