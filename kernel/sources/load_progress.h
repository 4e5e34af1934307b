#pragma once
// LoadProgress: how far the fresh load of one source has come, for a front end
// that shows it while a large file list is read.
//
// The loader opens a LoadProgress::Scope for a source on its own thread and
// names the phase it is in; readers running on that thread call `advance`
// once per input block or batch (about 1 MiB), never per record. When no
// observer is installed a Scope costs one atomic load, and readers skip even
// the arguments' work by testing `active()` first, so the hot loops pay
// nothing.
//
// The observer is process-wide: the front end installs it before loading and
// removes it (nullptr) before destroying it. It is called on the loading
// thread, must be cheap (it is called about once per MiB) and must not throw.
// Nothing here throws.

#include <cstdint>
#include <string_view>

namespace tarv {

class LoadProgress {
 public:
  enum class Phase {
    fingerprint,  // hashing the source file
    reading,      // the reader turns records into a catalog
    indexing,     // building the search structures; no byte counts
  };

  struct Report {
    std::string_view sourceId;
    Phase phase = Phase::reading;
    std::uint64_t bytesDone = 0;   // bytes of the file consumed in this phase
    std::uint64_t bytesTotal = 0;  // the file's size; 0 when unknown
    std::uint64_t records = 0;     // records read so far (reading, indexing)
    bool finished = false;         // the scope ends: the last report for this source
  };

  class Observer {
   public:
    virtual ~Observer() = default;
    virtual void report(const Report& report) noexcept = 0;
  };

  // Installs the process-wide observer; nullptr turns progress off.
  static void setObserver(Observer* observer) noexcept;

  // Progress of one source on the calling thread. Scopes nest: an inner scope
  // hides the outer one until it ends.
  class Scope {
   public:
    explicit Scope(std::string_view sourceId) noexcept;
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    friend class LoadProgress;
    Observer* observer_;
    Scope* outer_;
    Report report_;
  };

  // Whether a scope with an observer is open on this thread; readers test this
  // before computing what they pass to `advance`.
  static bool active() noexcept { return current_ != nullptr; }

  // Starts a phase of the current scope (counts reset) and reports it.
  static void phase(Phase phase) noexcept;
  // Reports the position in the current phase. Without an active scope it
  // does nothing.
  static void advance(std::uint64_t bytesDone, std::uint64_t bytesTotal, std::uint64_t records) noexcept;

 private:
  // The innermost scope of this thread that has an observer, or nullptr.
  static inline thread_local Scope* current_ = nullptr;
};

}  // namespace tarv
