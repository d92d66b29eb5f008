#pragma once

#include <framework/Module.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {

class CallbackRegistry;
class TaskRegistry;

/// Loads modules from their libraries and destroys them. Owned by the engine; owns the modules.
/// Framework thread only; Names is thread-safe.
class ModuleLoader {
  public:
    ModuleLoader(CallbackRegistry& callbacks, TaskRegistry& tasks);
    ~ModuleLoader();
    ModuleLoader(const ModuleLoader&) = delete;
    ModuleLoader& operator=(const ModuleLoader&) = delete;

    /// Both return false with `error` when the module cannot be used; nothing of it stays
    /// registered.
    bool Load(const std::string& name, std::string& error);
    bool Add(std::unique_ptr<Module> module, std::string& error);

    /// Uninitialises and destroys all modules in reverse order.
    void RemoveAll();

    std::vector<std::string> Names() const;

  private:
    bool Knows(const std::string& name) const;
    void UnregisterAllOf(Module& module);

    CallbackRegistry& callbacks_;
    TaskRegistry& tasks_;
    mutable std::mutex mutex_;  ///< guards modules_
    std::vector<std::unique_ptr<Module>> modules_;
};

}  // namespace Framework
