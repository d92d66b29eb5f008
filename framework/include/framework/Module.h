#pragma once

#include <Poco/Util/Subsystem.h>
#include <framework/Callbacks.h>

#include <memory>
#include <string>

namespace Framework {

class ModuleGate;
class Policy;
class Task;

/// The base of a loadable module. Its library exports `extern "C" void* CreateModule()`, which
/// returns a new object of a derived class; the framework owns it. The framework calls Init after
/// loading and UnInit before destruction. Framework thread only.
class Module : public Poco::Util::Subsystem {
  public:
    explicit Module(const std::string& name);
    ~Module() override;
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const char* name() const override;
    void initialize(Poco::Util::Application& app) override;
    void uninitialize() override;

    /// False: the module is not used; the agent logs it and continues with the others.
    virtual bool Init();
    virtual void UnInit();

    /// Calls the policy callback `callback_id` with the module's gate held exclusively. Returns its
    /// result, or 0 when no callback has that id.
    virtual int RefreshPolicy(const std::string& callback_id, const std::string& feature,
                              const std::string& policy_json, Policy*& policy);

    /// Refuses the policy within a policy callback, whatever the callback returns. The first reason
    /// counts.
    void RejectPolicy(const std::string& reason);

    /// The reason given to RejectPolicy since the last call; empty when there is none. For the
    /// framework.
    std::string TakePolicyRejection();

    /// Registers a callback under `id`; deletes an earlier one of that id. The framework owns
    /// `callback` from now on. False for a null pointer: nothing is registered.
    bool RegisterPolicyCallback(const std::string& id, AbstractPolicyCallback* callback);
    bool RegisterTaskletCallback(const std::string& id, AbstractTaskletCallback* callback);

    /// Removes and deletes the callback (policy or tasklet) of that id; does nothing for unknown
    /// ids.
    void UnRegisterPolicyCallback(const std::string& id);

    /// Takes one reference of `task` and starts it: now, or with `deferred` after the start of all
    /// modules. False, with the reference released, when the id is registered already.
    bool RegisterTask(Task* task, bool deferred);

    /// Cancels and joins the task. On return its UnInit has finished, its queue is empty and the
    /// framework has released its reference. Does nothing for unknown ids.
    void UnRegisterTask(const std::string& task_id);

    ModuleGate& Gate() { return *gate_; }

  private:
    const std::string name_;
    std::unique_ptr<ModuleGate> gate_;
    std::string policy_rejection_;
};

}  // namespace Framework
