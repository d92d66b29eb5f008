#pragma once

#include <Poco/AutoPtr.h>
#include <framework/Module.h>

#include <memory>

#include "FileNotifyTask.h"

namespace Engine {

/// The module "filenotify_module": registers its task and answers for its status.
class FileNotifyModule : public Framework::Module {
  public:
    /// `descriptor`: what the task watches with; null: the real one.
    explicit FileNotifyModule(std::unique_ptr<FileNotify::InotifyDescriptor> descriptor = nullptr);
    FileNotifyModule(const FileNotifyModule&) = delete;
    FileNotifyModule& operator=(const FileNotifyModule&) = delete;
    ~FileNotifyModule() override;

    bool Init() override;
    void UnInit() override;

  private:
    std::unique_ptr<FileNotify::InotifyDescriptor> descriptor_;
    Poco::AutoPtr<FileNotifyTask> task_;
};

}  // namespace Engine

extern "C" void* CreateModule();
