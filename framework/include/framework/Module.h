#pragma once

#include <Poco/Util/Subsystem.h>
#include <framework/Callbacks.h>

#include <memory>
#include <string>

namespace Framework {

class ModuleGate;
class Policy;
class Task;

/// The base of a loadable module. A module's library exports `extern "C" void* CreateModule()`,
/// which returns a new object of a class derived from this one; the framework owns it. The
/// framework calls Init after loading and UnInit before destroying it, both on the framework
/// thread. The operations below are for that thread too.
class Module : public Poco::Util::Subsystem {
  public:
    explicit Module(const std::string& name);
    ~Module() override;
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const char* name() const override;
    void initialize(Poco::Util::Application& app) override;
    void uninitialize() override;

    /// False: the module is not used; the agent logs it and goes on with the others.
    virtual bool Init();
    virtual void UnInit();

    /// Calls the module's policy callback `callback_id` with the module's gate held alone; its
    /// result, or 0 when there is none of that id.
    virtual int RefreshPolicy(const std::string& callback_id, const std::string& feature,
                              const std::string& policy_json, Policy*& policy);

    /// Says within a policy callback that the policy is refused and why, whatever the callback
    /// returns; the first reason counts.
    void RejectPolicy(const std::string& reason);

    /// What RejectPolicy was told since the last call; empty when nothing. For the framework.
    std::string TakePolicyRejection();

    /// Registers a callback under `id`, replacing (and freeing) one of that id. The framework owns
    /// `callback` from here on; a null pointer registers nothing. False when nothing was
    /// registered.
    bool RegisterPolicyCallback(const std::string& id, AbstractPolicyCallback* callback);
    bool RegisterTaskletCallback(const std::string& id, AbstractTaskletCallback* callback);

    /// Removes and frees the callback, policy or tasklet, of that id; unknown ids are a no-op.
    void UnRegisterPolicyCallback(const std::string& id);

    /// Takes over one reference of `task` and starts it now (`deferred` false) or when the agent
    /// has started all its modules. False, and the reference released, when a task of that id is
    /// registered already.
    bool RegisterTask(Task* task, bool deferred);

    /// Cancels, wakes and joins: on return the task's UnInit has finished, its queue is empty and
    /// the framework has released its reference. Unknown ids are a no-op.
    void UnRegisterTask(const std::string& task_id);

    ModuleGate& Gate() { return *gate_; }

  private:
    const std::string name_;
    std::unique_ptr<ModuleGate> gate_;
    std::string policy_rejection_;
};

}  // namespace Framework
