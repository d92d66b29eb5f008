#include <framework/Module.h>

#include <stdexcept>

namespace {

class ThrowingInit : public Framework::Module {
  public:
    ThrowingInit() : Module("ThrowingInit") {}
    bool Init() override { throw std::runtime_error("out of luck"); }
};

}  // namespace

extern "C" void* CreateModule() {
    return new ThrowingInit;
}
