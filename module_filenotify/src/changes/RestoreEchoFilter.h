#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kernel/InotifyReader.h"

namespace Engine::FileNotify {

/// Recognises records about the temporary files of the agent's own restores. A restore creates such
/// a file and renames it at once; the event of the final name suffices. A temporary file that stays
/// is never skipped. Owned by EventTranslator. Not thread-safe.
class RestoreEchoFilter {
  public:
    explicit RestoreEchoFilter(InotifyReader& reader) : reader_(reader) {}

    /// True when `record`, the reader's first one, must be skipped. May read further records.
    bool Skips(const InotifyRecord& record);

    /// Forgets the temporaries. Call when no read record is left.
    void Clear() { temporaries_.clear(); }

  private:
    bool EndsSoon(const InotifyRecord& record);
    bool HasEndAhead(const InotifyRecord& record) const;

    InotifyReader& reader_;
    /// Watch and name of the temporaries whose creation was skipped.
    std::vector<std::pair<int, std::string>> temporaries_;
};

}  // namespace Engine::FileNotify
