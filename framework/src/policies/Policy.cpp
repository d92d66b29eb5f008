#include <framework/Policy.h>

namespace Framework {

bool Policy::Parse(const std::string&) {
    return true;
}

}  // namespace Framework
