#pragma once

#include <framework/Module.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {

class CallbackRegistry;
class TaskRegistry;

/// Brings modules in from their libraries, and out again. Owned by the engine, owns the modules.
/// Framework thread, but for Names.
class ModuleLoader {
  public:
    ModuleLoader(CallbackRegistry& callbacks, TaskRegistry& tasks);
    ~ModuleLoader();
    ModuleLoader(const ModuleLoader&) = delete;
    ModuleLoader& operator=(const ModuleLoader&) = delete;

    /// Both: false with `error` when the module cannot be used; nothing of it is left registered.
    bool Load(const std::string& name, std::string& error);
    bool Add(std::unique_ptr<Module> module, std::string& error);

    /// Uninitialises and destroys all modules, the last one first.
    void RemoveAll();

    std::vector<std::string> Names() const;

  private:
    bool Knows(const std::string& name) const;
    void Withdraw(Module& module);

    CallbackRegistry& callbacks_;
    TaskRegistry& tasks_;
    mutable std::mutex mutex_;  ///< guards modules_
    std::vector<std::unique_ptr<Module>> modules_;
};

}  // namespace Framework
