#pragma once
// Parallel: runs one function over aligned chunks of a row range on a single
// persistent pool of `workers()` threads, created on first use. The calling
// thread takes chunks too and returns when every chunk has run. Ranges too
// small to pay for dispatch run as one plain call on the calling thread.
//
// Settings come from the environment once per process: TARV_WORKERS (a
// base-10 integer, leading "+" allowed, raised to 1) else the active processor
// count; TARV_PARALLEL_MINIMUM (a base-10 integer) replaces every caller's
// minimum when set.
//
// Thread safety: any thread may call chunks() at any time. A chunks() call made
// from inside a running body runs its chunks one after another on that thread,
// so nesting never waits on the pool. Bodies must not throw; if one does, the
// first exception is rethrown to the caller after all chunks have finished.

#include <cstdint>
#include <optional>
#include <type_traits>

namespace tarv {

class Parallel {
 public:
  struct Settings {
    std::int64_t workers = 1;
    std::optional<std::int64_t> minimumOverride;
  };

  // How a range is cut: `chunks` ranges of `length` rows (the last one shorter).
  // `serial` means one call over the whole range on the calling thread.
  struct Plan {
    bool serial = true;
    std::int64_t length = 0;
    std::int64_t chunks = 1;
  };

  // The process-wide settings (read once, race-free).
  static std::int64_t workers();
  static std::optional<std::int64_t> minimumOverride();

  // The settings rules applied to explicit values (nullptr = variable unset).
  static Settings parseSettings(const char* workersValue, const char* minimumValue, int processors);

  // The chunking rule: m = override or `minimum` (at least 1); wanted =
  // count / m; n = min(wanted, 4 * workers); serial when wanted < 1 or n < 2;
  // else length = ceil(ceil(count / n) / alignment) * alignment and
  // chunks = ceil(count / length).
  static Plan plan(std::int64_t count, std::int64_t alignment, std::int64_t minimum, const Settings& settings);
  static Plan plan(std::int64_t count, std::int64_t alignment, std::int64_t minimum);

  // Calls body(begin, end) for every chunk of 0 ..< count exactly once; chunk
  // i is [i * length, min((i + 1) * length, count)). `body` must be safe to run
  // concurrently on disjoint ranges. One call per chunk, no allocation per row.
  template <class Body>
  static void chunks(std::int64_t count, std::int64_t alignment, std::int64_t minimum, Body&& body) {
    const Plan p = plan(count, alignment, minimum);
    if (p.serial) {
      body(std::int64_t(0), count);
      return;
    }
    using B = std::remove_reference_t<Body>;
    run(p, count, const_cast<void*>(static_cast<const void*>(&body)),
        [](void* b, std::int64_t begin, std::int64_t end) { (*static_cast<B*>(b))(begin, end); });
  }

  // Whether the calling thread is running a chunk body right now.
  static bool insideBody() noexcept;

 private:
  using Trampoline = void (*)(void* body, std::int64_t begin, std::int64_t end);
  static void run(const Plan& plan, std::int64_t count, void* body, Trampoline call);
};

}  // namespace tarv
