#include "sdk/log/Log.h"

#include <cstring>

namespace SDK {

const char* SourceBaseName(const char* file) {
    if (file == nullptr) return "";
    const char* slash = std::strrchr(file, '/');
    return slash == nullptr ? file : slash + 1;
}

}  // namespace SDK
