// Owns the module objects; the registries own what modules register. Catches all exceptions of
// modules. Runs on the framework thread.
//
// A library stays mapped until the process ends: feature policies, messages in other queues and
// exceptions may need its code after its module is gone.
#include "engine/ModuleLoader.h"

#include <dlfcn.h>
#include <sdk/files/PathUtils.h>

#include "base/ExceptionBarrier.h"
#include "policies/CallbackRegistry.h"
#include "tasks/TaskRegistry.h"

namespace Framework {

namespace {

using Factory = void* (*)();

std::string LinkerError() {
    const char* text = ::dlerror();
    return text == nullptr ? "unknown error" : text;
}

Factory FindFactory(const std::string& path, std::string& error) {
    void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        error = "cannot load the library: " + LinkerError();
        return nullptr;
    }
    void* symbol = ::dlsym(library, "CreateModule");
    if (symbol == nullptr) error = path + " has no function CreateModule: " + LinkerError();
    return reinterpret_cast<Factory>(symbol);
}

std::unique_ptr<Module> Create(const std::string& path, std::string& error) {
    std::unique_ptr<Module> module;
    const std::string thrown = RunGuarded([&] {
        const Factory create = FindFactory(path, error);
        if (create == nullptr) return;
        module.reset(static_cast<Module*>(create()));
        if (!module) error = "CreateModule of " + path + " returned no object";
    });
    if (!thrown.empty()) error = "CreateModule of " + path + " threw: " + thrown;
    return module;
}

}  // namespace

ModuleLoader::ModuleLoader(CallbackRegistry& callbacks, TaskRegistry& tasks)
    : callbacks_(callbacks), tasks_(tasks) {}

ModuleLoader::~ModuleLoader() = default;

bool ModuleLoader::Load(const std::string& name, std::string& error) {
    if (name.empty() || name.find('/') != std::string::npos) {
        error = "\"" + name + "\" is no module name";
        return false;
    }
    if (Knows(name)) {
        error = "module " + name + " is loaded already";
        return false;
    }
    const std::string path = SDK::PathUtils::GetInstallationPath() + "module/lib" + name + ".so";
    std::unique_ptr<Module> module = Create(path, error);
    return module && Add(std::move(module), error);
}

bool ModuleLoader::Add(std::unique_ptr<Module> module, std::string& error) {
    const std::string name = module->name();
    if (Knows(name)) {
        error = "module " + name + " is loaded already";
        return false;
    }
    bool initialised = false;
    const std::string thrown = RunGuarded([&] { initialised = module->Init(); });
    if (!initialised) {
        error = "Init of module " + name + (thrown.empty() ? " failed" : " threw: " + thrown);
        UnregisterAllOf(*module);
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    modules_.push_back(std::move(module));
    return true;
}

void ModuleLoader::RemoveAll() {
    for (;;) {
        std::unique_ptr<Module> module;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (modules_.empty()) return;
            module = std::move(modules_.back());
            modules_.pop_back();
        }
        callbacks_.RemoveAll(*module);  // no callback runs after UnInit has begun
        const std::string thrown = RunGuarded([&] { module->UnInit(); });
        if (!thrown.empty()) {
            SDK_LOG(RootLogger(), PRIO_ERROR, "UnInit of module %s threw: %s",
                    std::string(module->name()), thrown);
        }
        UnregisterAllOf(*module);
    }
}

/// Unregisters what the module has left behind.
void ModuleLoader::UnregisterAllOf(Module& module) {
    callbacks_.RemoveAll(module);
    tasks_.UnregisterAll(&module);
}

std::vector<std::string> ModuleLoader::Names() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> names;
    for (const auto& module : modules_) names.emplace_back(module->name());
    return names;
}

bool ModuleLoader::Knows(const std::string& name) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& module : modules_) {
        if (name == module->name()) return true;
    }
    return false;
}

}  // namespace Framework
