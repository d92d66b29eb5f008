#include <stdexcept>

extern "C" void* CreateModule() {
    throw std::runtime_error("no memory for the module");
}
