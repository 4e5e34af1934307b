#pragma once
// PendingWrites: the one process-wide group of background index writes. Each
// piece of background work enters the group before its thread starts and
// leaves it when done; front ends wait for the group to empty (with a time
// limit) before the process exits, so finished loads leave their cache files
// behind.
//
// The group's state lives for the whole process (never destroyed), so a
// detached thread still running at exit never touches a dead mutex.
// Thread-safe. Nothing here throws except start() (see there).

#include <chrono>
#include <functional>

namespace tarv {

class PendingWrites {
 public:
  static void enter() noexcept;
  static void leave() noexcept;
  // Pieces of work entered and not yet left.
  static int count() noexcept;

  // Runs `work` on a new detached thread inside the group. Exceptions thrown
  // by `work` are swallowed (background writes report their own failures).
  // When no thread can be started, the group is left again and the
  // std::system_error is passed on.
  static void start(std::function<void()> work);

  // Waits until the group is empty or `limit` has passed; true when empty.
  static bool waitUntilDone(std::chrono::steady_clock::duration limit);
};

}  // namespace tarv
