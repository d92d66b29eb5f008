// The modules of the loader's tests, one library for each kind; CMakeLists.txt defines the kind.
#include <framework/Module.h>
#include <framework/Task.h>

#include <stdexcept>

enum Kind { NoFactory, NullFactory, ThrowingFactory, FailingInit, ThrowingInit, GoodModule };
constexpr Kind kKind = SENTREL_MODULE_KIND;

class TestModule : public Framework::Module {
  public:
    TestModule() : Module(SENTREL_MODULE_NAME) {}

    bool Init() override {
        if (kKind == ThrowingInit) throw std::runtime_error("out of luck");
        if (kKind == GoodModule) return true;
        // It fails when a callback and a task are registered already.
        using Callback = Framework::TaskletCallback<TestModule>;
        RegisterTaskletCallback("left_behind", new Callback(this, &TestModule::Answer));
        RegisterTask(new Framework::Task("left_behind", "", Framework::TaskCondition::kPeriodic, 4),
                     false);
        return false;
    }

  private:
    int Answer(const std::string&) { return 1; }
};

extern "C" void* SENTREL_FACTORY_NAME() {
    if (kKind == ThrowingFactory) throw std::runtime_error("no memory for the module");
    return kKind == NullFactory ? nullptr : new TestModule;
}
