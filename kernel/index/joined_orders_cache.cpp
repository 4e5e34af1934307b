#include "kernel/index/joined_orders_cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <utility>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "kernel/index/index_cache.h"
#include "kernel/index/index_file.h"
#include "kernel/index/load_trace.h"
#include "kernel/index/pending_writes.h"
#include "kernel/query/parallel.h"

namespace tarv {
namespace {

std::string sectionOf(SortKey key) { return "order." + std::string(sortKeyName(key)); }

std::string detailOf(std::size_t sourceCount, std::int64_t total) {
  return "sources=" + std::to_string(sourceCount) + " records=" + std::to_string(total);
}

// Whether every id lies in 0 ..< total. One pass per column on the pool; a
// chunk stops at its first bad id.
bool idsInRange(const Column<std::int32_t>& ids, std::int64_t total) {
  std::atomic<bool> bad{false};
  const std::int32_t* data = ids.data();
  const auto limit = static_cast<std::uint32_t>(total);
  Parallel::chunks(static_cast<std::int64_t>(ids.size()), 16, 1 << 18, [&](std::int64_t begin, std::int64_t end) {
    // Unsigned comparison catches negative ids too; the loop has no early
    // exit so it vectorises, and a bad chunk is rare.
    std::uint32_t worst = 0;
    for (auto i = begin; i < end; ++i) {
      const auto id = static_cast<std::uint32_t>(data[i]);
      worst = id > worst ? id : worst;
    }
    if (worst >= limit) bad.store(true, std::memory_order_relaxed);
  });
  return !bad.load();
}

std::int64_t metaInteger(const json::Value& meta, const char* name) {
  const auto found = meta.find(name);
  if (found == meta.end() || !found->is_number_integer()) throw KernelError::io("Missing index value " + std::string(name));
  return found->get<std::int64_t>();
}

}  // namespace

JoinedOrdersCache::JoinedOrdersCache(std::filesystem::path directory) : directory_(std::move(directory)) {}

std::filesystem::path JoinedOrdersCache::fileOf(const std::string& joinKey) const {
  return directory_ / (joinKey + IndexCache::kExtension);
}

JoinedOrdersStore::Orders JoinedOrdersCache::obtain(const std::string& joinKey, std::span<const SortKey> keys,
                                                    std::size_t sourceCount, std::int64_t total,
                                                    const std::function<Orders()>& merge) const {
  // One source's own orders are already global; there is nothing to keep.
  if (sourceCount < 2 || joinKey.empty()) return merge();
  if (std::optional<Orders> stored = map(joinKey, keys, sourceCount, total)) return std::move(*stored);

  const auto started = LoadTrace::begin("join.orders", detailOf(sourceCount, total));
  Orders orders = merge();
  LoadTrace::end("join.orders", started, detailOf(sourceCount, total));

  try {
    PendingWrites::start([cache = *this, joinKey, chosen = std::vector<SortKey>(keys.begin(), keys.end()),
                          sourceCount, total, orders] { cache.store(joinKey, chosen, sourceCount, total, orders); });
  } catch (const std::exception& e) {
    // No thread: the orders stay in use, the next process merges again.
    reportIndexNotWritten(e.what());
  }
  return orders;
}

std::optional<JoinedOrdersStore::Orders> JoinedOrdersCache::map(const std::string& joinKey,
                                                                std::span<const SortKey> keys,
                                                                std::size_t sourceCount,
                                                                std::int64_t total) const noexcept {
  try {
    const std::filesystem::path file = fileOf(joinKey);
    struct stat info {};
    if (::lstat(file.c_str(), &info) != 0) return std::nullopt;
    const auto started = LoadTrace::begin("join.map", detailOf(sourceCount, total));
    try {
      IndexFile::Reader reader(file);
      const json::Value& meta = reader.meta();
      const auto storedKey = meta.find("joinKey");
      if (storedKey == meta.end() || !storedKey->is_string() || storedKey->get<std::string>() != joinKey)
        throw KernelError::io("Joined orders of another join key");
      if (metaInteger(meta, "joinSources") != static_cast<std::int64_t>(sourceCount) ||
          metaInteger(meta, "joinTotal") != total)
        throw KernelError::io("Joined orders of other sources");
      Orders orders;
      orders.reserve(keys.size());
      for (const SortKey key : keys) {
        Column<std::int32_t> ids = reader.column<std::int32_t>(sectionOf(key));
        if (static_cast<std::int64_t>(ids.size()) != total || !idsInRange(ids, total))
          throw KernelError::io("Invalid index section " + sectionOf(key));
        orders.push_back(std::move(ids));
      }
      if (::utimensat(AT_FDCWD, file.c_str(), nullptr, 0) != 0)
        throw systemError("Cannot touch index file", file.string(), errno);
      LoadTrace::end("join.map", started, detailOf(sourceCount, total));
      return orders;
    } catch (const std::exception& e) {
      LoadTrace::event("join.map", "discard", std::string("reason=") + e.what());
      ::unlink(file.c_str());
      return std::nullopt;
    }
  } catch (...) {
    return std::nullopt;
  }
}

void JoinedOrdersCache::store(const std::string& joinKey, std::span<const SortKey> keys, std::size_t sourceCount,
                              std::int64_t total, const Orders& orders) const noexcept {
  std::optional<IndexFile::Writer> writer;
  try {
    const auto started = LoadTrace::begin("join.store", detailOf(sourceCount, total));
    createCacheDirectory(directory_);
    CacheWriteLock lock(directory_);
    const std::filesystem::path file = fileOf(joinKey);
    struct stat info {};
    if (::lstat(file.c_str(), &info) == 0) {
      LoadTrace::end("join.store", started, detailOf(sourceCount, total) + " skipped=present");
      return;
    }
    if (orders.size() != keys.size()) throw KernelError::io("Joined orders do not match their keys");
    writer.emplace(file);
    writer->meta()["joinKey"] = joinKey;
    writer->meta()["joinSources"] = static_cast<std::int64_t>(sourceCount);
    writer->meta()["joinTotal"] = total;
    for (std::size_t k = 0; k < keys.size(); ++k) writer->add(sectionOf(keys[k]), orders[k]);
    writer->finish();
    LoadTrace::end("join.store", started, detailOf(sourceCount, total));
  } catch (const std::exception& e) {
    if (writer) writer->abandon();
    reportIndexNotWritten(e.what());
  }
}

}  // namespace tarv
