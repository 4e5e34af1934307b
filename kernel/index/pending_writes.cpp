#include "kernel/index/pending_writes.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace tarv {
namespace {

struct Group {
  std::mutex lock;
  std::condition_variable emptied;
  int members = 0;
};

Group& group() noexcept {
  // Deliberately leaked: detached writers may still leave the group while
  // static destructors run at exit.
  static Group* const instance = new Group;
  return *instance;
}

}  // namespace

void PendingWrites::enter() noexcept {
  Group& g = group();
  std::lock_guard<std::mutex> hold(g.lock);
  ++g.members;
}

void PendingWrites::leave() noexcept {
  Group& g = group();
  std::lock_guard<std::mutex> hold(g.lock);
  if (g.members > 0 && --g.members == 0) g.emptied.notify_all();
}

int PendingWrites::count() noexcept {
  Group& g = group();
  std::lock_guard<std::mutex> hold(g.lock);
  return g.members;
}

void PendingWrites::start(std::function<void()> work) {
  enter();
  try {
    std::thread([work = std::move(work)] {
      try {
        work();
      } catch (...) {
      }
      leave();
    }).detach();
  } catch (...) {
    leave();
    throw;
  }
}

bool PendingWrites::waitUntilDone(std::chrono::steady_clock::duration limit) {
  Group& g = group();
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::unique_lock<std::mutex> hold(g.lock);
  return g.emptied.wait_until(hold, deadline, [&] { return g.members == 0; });
}

}  // namespace tarv
