#pragma once

namespace SDK {

/// Lets another thread interrupt the external commands of one thread.
///
/// The owner (a task's thread) opens a Scope; from then on every ExecuteCmd of that thread ends
/// early, its process group killed, once Interrupt has been called, until Reset. Interrupt and
/// Reset may be called from any thread.
class CommandInterrupter {
  public:
    CommandInterrupter();
    ~CommandInterrupter();
    CommandInterrupter(const CommandInterrupter&) = delete;
    CommandInterrupter& operator=(const CommandInterrupter&) = delete;

    void Interrupt();
    void Reset();

    /// Readable while an interruption is in force; for poll(2).
    int Descriptor() const { return event_fd_; }

    /// Makes `interrupter` the one of the calling thread while the object lives; nests.
    class Scope {
      public:
        explicit Scope(CommandInterrupter& interrupter);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        CommandInterrupter* previous_;
    };

    /// The calling thread's interrupter, or null.
    static CommandInterrupter* Current();

  private:
    int event_fd_;
};

}  // namespace SDK
