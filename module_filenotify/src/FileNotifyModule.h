#pragma once

#include <Poco/AutoPtr.h>
#include <framework/Module.h>

#include <memory>

#include "FileNotifyTask.h"

namespace Engine {

/// The module "filenotify_module". Registers its task and answers status queries. The framework
/// thread runs it. Not thread-safe.
class FileNotifyModule : public Framework::Module {
  public:
    /// `descriptor`: for tests; null: a real inotify descriptor.
    explicit FileNotifyModule(std::unique_ptr<FileNotify::InotifyDescriptor> descriptor = nullptr);
    FileNotifyModule(const FileNotifyModule&) = delete;
    FileNotifyModule& operator=(const FileNotifyModule&) = delete;
    ~FileNotifyModule() override;

    /// Returns false when the configuration is invalid or the task cannot be registered.
    bool Init() override;
    void UnInit() override;

  private:
    std::unique_ptr<FileNotify::InotifyDescriptor> descriptor_;
    Poco::AutoPtr<FileNotifyTask> task_;
};

}  // namespace Engine

extern "C" void* CreateModule();
