#pragma once

namespace SDK {

/// Lets another thread interrupt the external commands of one thread.
///
/// The owner (a task's thread) opens a Scope. After Interrupt, every ExecuteCmd of that thread ends
/// early, its process group killed, until Reset. Interrupt and Reset are thread-safe.
class CommandInterrupter {
  public:
    CommandInterrupter();
    ~CommandInterrupter();
    CommandInterrupter(const CommandInterrupter&) = delete;
    CommandInterrupter& operator=(const CommandInterrupter&) = delete;

    void Interrupt();
    void Reset();

    /// Readable while the interrupter is interrupted; for poll(2).
    int Descriptor() const { return event_fd_; }

    /// Sets the calling thread's interrupter while the object lives. Scopes may be nested.
    class Scope {
      public:
        explicit Scope(CommandInterrupter& interrupter);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        CommandInterrupter* previous_;
    };

    /// The descriptor of the calling thread's interrupter, for poll(2); -1 when it has none.
    static int CurrentDescriptor();

    /// True while the calling thread's interrupter is interrupted; false when it has none.
    static bool IsCurrentInterrupted();

  private:
    int event_fd_;
};

}  // namespace SDK
