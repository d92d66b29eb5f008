#pragma once

#include <baseline/Manifest.h>
#include <baseline/TreeVerifier.h>

#include <functional>
#include <string>

namespace Ctl {

/// Compares two approved states of one protected path, in the order of their paths. An object below
/// an added or missing directory is not listed by itself. For one use; not thread-safe.
class GenerationComparison {
  public:
    /// Borrows both manifests.
    GenerationComparison(const Baseline::Manifest& before, const Baseline::Manifest& after,
                         const std::string& below);

    /// `found` takes what `after` has differently. Returns the number of objects that were
    /// compared.
    std::size_t Run(const std::function<void(const Baseline::Difference&)>& found);

  private:
    /// A position in one of the lists.
    class Cursor {
      public:
        Cursor(const Baseline::Manifest& manifest, const std::string& below);
        bool IsAtEnd() const { return is_at_end_; }
        const Baseline::ManifestEntry& Entry() const { return entry_; }
        void Next();
        void SkipBelow();

      private:
        void Load();

        const Baseline::Manifest& manifest_;
        const std::string below_;
        std::size_t index_;
        bool is_at_end_ = false;
        Baseline::ManifestEntry entry_;
    };

    using Found = std::function<void(const Baseline::Difference&)>;

    /// The entry exists on one side only.
    static void TakeSingle(Cursor& side, Baseline::Difference::Kind kind, const Found& found);
    void CompareBoth(const Found& found);
    void CompareTypes(const Found& found);

    Cursor before_;
    Cursor after_;
};

}  // namespace Ctl
