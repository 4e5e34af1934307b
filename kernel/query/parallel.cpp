#include "kernel/query/parallel.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <limits>
#include <mutex>
#include <thread>

#include "core/platform/system_info.h"

namespace tarv {
namespace {

// Bodies that call chunks() again see this above zero and run serially, so a
// pool thread never waits for work that only the pool could do.
thread_local int bodyDepth = 0;

struct DepthGuard {
  DepthGuard() { ++bodyDepth; }
  ~DepthGuard() { --bodyDepth; }
};

// A base-10 integer with an optional sign, nothing else; nullopt when the text
// is not one or does not fit in 64 bits.
std::optional<std::int64_t> parseInteger(const char* text) {
  if (text == nullptr) return std::nullopt;
  const char* p = text;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  if (*p == '\0') return std::nullopt;
  std::uint64_t value = 0;
  const std::uint64_t limit = negative ? std::uint64_t(std::numeric_limits<std::int64_t>::max()) + 1
                                       : std::uint64_t(std::numeric_limits<std::int64_t>::max());
  for (; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return std::nullopt;
    const auto digit = static_cast<std::uint64_t>(*p - '0');
    if (value > (limit - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  if (negative) return value == limit ? std::numeric_limits<std::int64_t>::min() : -static_cast<std::int64_t>(value);
  return static_cast<std::int64_t>(value);
}

const Parallel::Settings& settings() {
  static const Parallel::Settings value =
      Parallel::parseSettings(std::getenv("TARV_WORKERS"), std::getenv("TARV_PARALLEL_MINIMUM"),
                              platform::activeProcessorCount());
  return value;
}

std::int64_t ceilDiv(std::int64_t a, std::int64_t b) { return a / b + (a % b != 0 ? 1 : 0); }

// One chunks() call in flight. It lives on the caller's stack; the caller does
// not return before every worker that picked it up has let go of it.
struct Job {
  void* body = nullptr;
  void (*call)(void*, std::int64_t, std::int64_t) = nullptr;
  std::int64_t count = 0;
  std::int64_t length = 0;
  std::int64_t chunks = 0;
  std::atomic<std::int64_t> next{0};
  // Guarded by the pool's lock:
  std::int64_t finished = 0;
  int holders = 0;
  std::exception_ptr error;
};

class Pool {
 public:
  explicit Pool(int threads) {
    for (int i = 0; i < threads; ++i) std::thread([this] { serve(); }).detach();
  }

  void execute(Job& job) {
    {
      std::lock_guard lock(mutex_);
      jobs_.push_back(&job);
    }
    wake_.notify_all();
    work(job, /*fromPool=*/false);
    std::unique_lock lock(mutex_);
    drop(job);
    done_.wait(lock, [&] { return job.finished == job.chunks && job.holders == 0; });
  }

 private:
  void serve() {
    for (;;) {
      Job* job;
      {
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [&] { return !jobs_.empty(); });
        job = jobs_.front();
        ++job->holders;
      }
      work(*job, /*fromPool=*/true);
    }
  }

  // Takes chunks of `job` until none is left, then reports what it ran.
  void work(Job& job, bool fromPool) {
    std::int64_t ran = 0;
    std::exception_ptr error;
    {
      DepthGuard depth;
      for (;;) {
        const std::int64_t i = job.next.fetch_add(1, std::memory_order_relaxed);
        if (i >= job.chunks) break;
        const std::int64_t begin = i * job.length;
        const std::int64_t end = std::min(begin + job.length, job.count);
        try {
          job.call(job.body, begin, end);
        } catch (...) {
          if (!error) error = std::current_exception();
        }
        ++ran;
      }
    }
    std::lock_guard lock(mutex_);
    job.finished += ran;
    if (error && !job.error) job.error = error;
    drop(job);
    if (fromPool) --job.holders;
    if (job.finished == job.chunks && job.holders == 0) done_.notify_all();
  }

  // Removes an exhausted job so idle threads stop picking it. Lock held.
  void drop(Job& job) {
    auto it = std::find(jobs_.begin(), jobs_.end(), &job);
    if (it != jobs_.end()) jobs_.erase(it);
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable done_;
  std::deque<Job*> jobs_;
};

Pool& pool() {
  // Never destroyed: detached workers may still be parked on its condition
  // variables while static destructors run at exit.
  static Pool* instance = new Pool(static_cast<int>(std::min<std::int64_t>(Parallel::workers(), 256)));
  return *instance;
}

}  // namespace

Parallel::Settings Parallel::parseSettings(const char* workersValue, const char* minimumValue, int processors) {
  Settings s;
  if (auto w = parseInteger(workersValue)) s.workers = std::max<std::int64_t>(*w, 1);
  else s.workers = std::max(processors, 1);
  // The pool never needs more chunks than a 32-bit count of workers could ask for.
  s.workers = std::min<std::int64_t>(s.workers, std::numeric_limits<std::int32_t>::max());
  s.minimumOverride = parseInteger(minimumValue);
  return s;
}

std::int64_t Parallel::workers() { return settings().workers; }

std::optional<std::int64_t> Parallel::minimumOverride() { return settings().minimumOverride; }

Parallel::Plan Parallel::plan(std::int64_t count, std::int64_t alignment, std::int64_t minimum,
                              const Settings& s) {
  Plan p;
  p.length = count;
  // A minimum below 1 would divide by zero; an environment value of 0 or less
  // is read as 1 rather than failing every search.
  const std::int64_t m = std::max<std::int64_t>(s.minimumOverride.value_or(minimum), 1);
  const std::int64_t wanted = count / m;
  const std::int64_t n = std::min(wanted, 4 * s.workers);
  if (wanted < 1 || n < 2) return p;
  alignment = std::max<std::int64_t>(alignment, 1);
  const std::int64_t per = ceilDiv(count, n);
  p.serial = false;
  p.length = ceilDiv(per, alignment) * alignment;
  p.chunks = ceilDiv(count, p.length);
  return p;
}

Parallel::Plan Parallel::plan(std::int64_t count, std::int64_t alignment, std::int64_t minimum) {
  return plan(count, alignment, minimum, settings());
}

bool Parallel::insideBody() noexcept { return bodyDepth > 0; }

void Parallel::run(const Plan& p, std::int64_t count, void* body, Trampoline call) {
  if (bodyDepth > 0) {
    for (std::int64_t i = 0; i < p.chunks; ++i) call(body, i * p.length, std::min((i + 1) * p.length, count));
    return;
  }
  Job job;
  job.body = body;
  job.call = call;
  job.count = count;
  job.length = p.length;
  job.chunks = p.chunks;
  pool().execute(job);
  if (job.error) std::rethrow_exception(job.error);
}

}  // namespace tarv
