#include <framework/Module.h>
#include <framework/Task.h>

namespace {

/// Gives up half way: a callback and a task are registered already.
class FailingInit : public Framework::Module {
  public:
    FailingInit() : Module("FailingInit") {}

    bool Init() override {
        using Callback = Framework::TaskletCallback<FailingInit>;
        RegisterTaskletCallback("left_behind", new Callback(this, &FailingInit::Answer));
        RegisterTask(new Framework::Task("left_behind", "", Framework::TaskCondition::kPeriodic, 4),
                     false);
        return false;
    }

  private:
    int Answer(const std::string&) { return 1; }
};

}  // namespace

extern "C" void* CreateModule() {
    return new FailingInit;
}
