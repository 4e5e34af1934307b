#include "kernel/service/result_store.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <functional>
#include <memory>
#include <regex>
#include <thread>

#include "kernel/base/kernel_error.h"

namespace tarv {
namespace {

// A clock the test moves by hand.
struct ManualClock {
  std::shared_ptr<std::atomic<std::int64_t>> now = std::make_shared<std::atomic<std::int64_t>>(1'700'000'000'000);
  ResultStore::Clock function() const {
    return [now = now] { return now->load(); };
  }
  void advance(std::int64_t ms) const { *now += ms; }
};

Column<std::int32_t> rowsOf(std::size_t count) {
  std::vector<std::int32_t> rows(count);
  for (std::size_t i = 0; i < count; ++i) rows[i] = static_cast<std::int32_t>(count - i);
  return Column<std::int32_t>::owned(std::move(rows));
}

// A column of `count` ids over untouched anonymous memory, so results at the
// 128 MiB bound cost no resident memory (the store never reads the ids).
Column<std::int32_t> hugeRows(std::size_t count) {
  const std::size_t bytes = count * sizeof(std::int32_t);
  void* memory = ::mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  std::shared_ptr<const void> owner(memory, [bytes](const void* p) { ::munmap(const_cast<void*>(p), bytes); });
  return Column<std::int32_t>(static_cast<const std::int32_t*>(memory), count, std::move(owner));
}

TEST(ResultStore, AddStoresACopyUnderAFreshLowerCaseUuid) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{}, clock.function());
  const ResultStore::Entry entry = store.add(rowsOf(3), "size-desc", 1.25);
  EXPECT_TRUE(std::regex_match(entry.id, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")))
      << entry.id;
  EXPECT_EQ(entry.expiresAt, clock.now->load() + 120000);

  const auto found = store.get(entry.id);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->rows.data(), entry.rows.data()) << "rows are shared, not copied";
  EXPECT_EQ(store.bytes(), 12);
}

TEST(ResultStore, FifthResultEvictsTheOldestEvenWhenItWasJustRead) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{}, clock.function());
  std::vector<std::string> ids;
  for (int i = 0; i < 4; ++i) ids.push_back(store.add(rowsOf(1), "name-asc", 0).id);
  ASSERT_TRUE(store.get(ids[0]));  // a read does not move it to the back
  const std::string fifth = store.add(rowsOf(1), "name-asc", 0).id;
  EXPECT_FALSE(store.get(ids[0]));
  for (int i = 1; i < 4; ++i) EXPECT_TRUE(store.get(ids[i])) << i;
  EXPECT_TRUE(store.get(fifth));
  EXPECT_EQ(store.size(), 4u);
}

TEST(ResultStore, MemoryBoundEvictsOldestFirstUntilTheNewResultFits) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{4, 40, 120000}, clock.function());  // ten row ids
  const std::string a = store.add(rowsOf(4), "name-asc", 0).id;
  const std::string b = store.add(rowsOf(4), "name-asc", 0).id;
  const std::string c = store.add(rowsOf(2), "name-asc", 0).id;
  EXPECT_EQ(store.bytes(), 40);
  const std::string d = store.add(rowsOf(5), "name-asc", 0).id;  // needs a and b gone
  EXPECT_FALSE(store.get(a));
  EXPECT_FALSE(store.get(b));
  EXPECT_TRUE(store.get(c));
  EXPECT_TRUE(store.get(d));
  EXPECT_EQ(store.bytes(), 28);
}

TEST(ResultStore, TooLargeResultFailsWithoutEvictingAnything) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{4, 40, 120000}, clock.function());
  const std::string kept = store.add(rowsOf(10), "name-asc", 0).id;
  try {
    store.add(rowsOf(11), "name-asc", 0);
    FAIL() << "expected the memory limit";
  } catch (const KernelError& error) {
    EXPECT_EQ(error, KernelError::invalid("Result exceeds memory limit; narrow the query"));
  }
  EXPECT_TRUE(store.get(kept));
  EXPECT_EQ(store.size(), 1u);
}

TEST(ResultStore, ExactlyThe128MiBBoundIsStoredAfterEvictingTheRest) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{}, clock.function());
  const std::string small = store.add(rowsOf(1), "name-asc", 0).id;
  const ResultStore::Entry full = store.add(hugeRows(33554432), "name-asc", 0);
  EXPECT_FALSE(store.get(small));
  EXPECT_TRUE(store.get(full.id));
  EXPECT_EQ(store.bytes(), 134217728);
  EXPECT_THROW(store.add(hugeRows(33554433), "name-asc", 0), KernelError);
  EXPECT_TRUE(store.get(full.id)) << "a refused result evicts nothing";
}

TEST(ResultStore, SlidingExpiryRenewsOnEveryRead) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{}, clock.function());
  const std::string id = store.add(rowsOf(2), "name-asc", 0).id;
  clock.advance(119999);
  const auto renewed = store.get(id);
  ASSERT_TRUE(renewed) << "still alive one millisecond before expiry";
  EXPECT_EQ(renewed->expiresAt, clock.now->load() + 120000);
  clock.advance(119999);
  EXPECT_TRUE(store.get(id)) << "the read above extended the life";
  clock.advance(120000);
  EXPECT_FALSE(store.get(id)) << "expiry at exactly expiresAt";
}

TEST(ResultStore, ExpiredEntriesArePurgedByAddAndDoNotCount) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{4, 40, 120000}, clock.function());
  const std::string old = store.add(rowsOf(10), "name-asc", 0).id;
  clock.advance(120000);
  const std::string fresh = store.add(rowsOf(3), "name-asc", 0).id;
  EXPECT_EQ(store.bytes(), 12);
  EXPECT_FALSE(store.get(old));
  EXPECT_TRUE(store.get(fresh));
}

TEST(ResultStore, LookupIsExactAndRemoveDeletes) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{}, clock.function());
  const std::string id = store.add(rowsOf(1), "name-asc", 0).id;
  std::string upper = id;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  ASSERT_NE(upper, id);
  EXPECT_FALSE(store.get(upper));
  EXPECT_FALSE(store.get(id.substr(1)));
  EXPECT_FALSE(store.get(""));
  store.remove(upper);
  EXPECT_TRUE(store.get(id));
  store.remove(id);
  EXPECT_FALSE(store.get(id));
  EXPECT_EQ(store.bytes(), 0);
}

// Evicted, expired and removed results are freed once the call returns (the
// store frees them after letting go of its lock), never kept aside.
TEST(ResultStore, DroppedResultsAreFreedWhenTheCallReturns) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{}, clock.function());
  auto tracked = [](std::weak_ptr<const void>& watch) {
    auto owner = std::make_shared<const std::vector<std::int32_t>>(std::vector<std::int32_t>{1, 2, 3});
    watch = owner;
    return Column<std::int32_t>(owner->data(), owner->size(), owner);
  };
  struct Case {
    const char* label;
    std::function<void(ResultStore&, const std::string&)> drop;
  };
  const std::vector<Case> cases = {
      {"evicted by a fifth add",
       [](ResultStore& s, const std::string&) {
         for (int i = 0; i < 4; ++i) s.add(rowsOf(1), "name-asc", 1);
       }},
      {"expired, purged by get",
       [&clock](ResultStore& s, const std::string&) {
         clock.advance(s.limits().ttlMillis);
         EXPECT_FALSE(s.get("nothing"));
       }},
      {"removed", [](ResultStore& s, const std::string& id) { s.remove(id); }},
  };
  for (const Case& c : cases) {
    std::weak_ptr<const void> watch;
    const std::string id = store.add(tracked(watch), "name-asc", 1).id;
    ASSERT_FALSE(watch.expired()) << c.label;
    c.drop(store, id);
    EXPECT_TRUE(watch.expired()) << c.label;
    EXPECT_FALSE(store.get(id)) << c.label;
  }
}

// With a hand-over list, the rows of evicted and expired results outlive add()
// in that list, and only there.
TEST(ResultStore, AddHandsDroppedRowsToTheCaller) {
  ManualClock clock;
  ResultStore store(ResultStore::Limits{}, clock.function());
  std::vector<std::weak_ptr<const void>> watches;
  auto tracked = [&watches](std::int32_t value) {
    auto owner = std::make_shared<const std::vector<std::int32_t>>(std::vector<std::int32_t>{value});
    watches.push_back(owner);
    return Column<std::int32_t>(owner->data(), owner->size(), owner);
  };
  const std::string expiring = store.add(tracked(0), "name-asc", 1).id;
  clock.advance(store.limits().ttlMillis);  // the first result expires now
  for (std::int32_t i = 1; i <= 4; ++i) store.add(tracked(i), "name-asc", 1);

  ResultStore::Released released;
  store.add(rowsOf(2), "name-asc", 1, &released);  // evicts the result of 1
  ASSERT_EQ(released.size(), 1u);
  EXPECT_EQ(released[0][0], 1);
  EXPECT_TRUE(watches[0].expired()) << "purged by an add without a hand-over list";
  EXPECT_FALSE(watches[1].expired()) << "held by the hand-over list";
  EXPECT_FALSE(store.get(expiring));
  released.clear();
  EXPECT_TRUE(watches[1].expired());
  for (std::size_t i = 2; i < watches.size(); ++i) EXPECT_FALSE(watches[i].expired()) << i;
}

TEST(ResultStore, ConcurrentUseKeepsTheBounds) {
  ResultStore store;
  std::vector<std::thread> threads;
  std::atomic<int> found{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        const auto entry = store.add(rowsOf(16), "name-asc", 0);
        if (store.get(entry.id)) ++found;
        if (i % 3 == 0) store.remove(entry.id);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_LE(store.size(), 4u);
  EXPECT_EQ(store.bytes(), static_cast<std::int64_t>(store.size()) * 64);
  EXPECT_GT(found.load(), 0);
}

}  // namespace
}  // namespace tarv
