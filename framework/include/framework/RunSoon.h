#pragma once

namespace Framework {

class Task;

/// Lets the next pass of the task begin now and not at the end of its period; during a pass, right
/// after it. Ends a wait of the task, too. Does nothing for a task that is not registered.
/// Thread-safe; never blocks.
void RunSoon(Task& task);

}  // namespace Framework
