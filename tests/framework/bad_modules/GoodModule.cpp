#include <framework/Module.h>

namespace {

class GoodModule : public Framework::Module {
  public:
    GoodModule() : Module("GoodModule") {}
};

}  // namespace

extern "C" void* CreateModule() {
    return new GoodModule;
}
