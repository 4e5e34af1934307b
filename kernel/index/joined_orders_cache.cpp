#include "kernel/index/joined_orders_cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "kernel/index/index_cache.h"
#include "kernel/index/index_file.h"
#include "kernel/index/load_trace.h"
#include "kernel/index/pending_writes.h"

namespace tarv {
namespace {

std::string sectionOf(SortKey key) { return "order." + std::string(sortKeyName(key)); }
std::string ranksOf(std::size_t source) { return "parentRanks." + std::to_string(source); }

std::string detailOf(const JoinedOrdersStore::Request& request) {
  return "sources=" + std::to_string(request.parentCounts.size()) + " records=" + std::to_string(request.total);
}

std::int64_t metaInteger(const json::Value& meta, const char* name) {
  const auto found = meta.find(name);
  if (found == meta.end() || !found->is_number_integer())
    throw KernelError::io("Missing index value " + std::string(name));
  return found->get<std::int64_t>();
}

}  // namespace

JoinedOrdersCache::JoinedOrdersCache(std::filesystem::path directory) : directory_(std::move(directory)) {}

std::filesystem::path JoinedOrdersCache::fileOf(const std::string& joinKey) const {
  return directory_ / (joinKey + IndexCache::kExtension);
}

JoinedOrdersStore::Joined JoinedOrdersCache::obtain(const Request& request,
                                                    const std::function<Joined()>& merge) const {
  // One source's own orders are already global; there is nothing to keep.
  if (request.parentCounts.size() < 2 || request.joinKey.empty()) return merge();
  if (std::optional<Joined> stored = map(request)) return std::move(*stored);

  const auto started = LoadTrace::begin("join.orders", detailOf(request));
  Joined joined = merge();
  LoadTrace::end("join.orders", started, detailOf(request));

  try {
    PendingWrites::start([cache = *this, request, joined] { cache.store(request, joined); });
  } catch (const std::exception& e) {
    // No thread: the state stays in use, the next process derives it again.
    reportIndexNotWritten(e.what());
  }
  return joined;
}

std::optional<JoinedOrdersStore::Joined> JoinedOrdersCache::map(const Request& request) const noexcept {
  try {
    const std::filesystem::path file = fileOf(request.joinKey);
    struct stat info {};
    if (::lstat(file.c_str(), &info) != 0) return std::nullopt;
    const auto started = LoadTrace::begin("join.map", detailOf(request));
    try {
      IndexFile::Reader reader(file);
      const json::Value& meta = reader.meta();
      const auto storedKey = meta.find("joinKey");
      if (storedKey == meta.end() || !storedKey->is_string() || storedKey->get<std::string>() != request.joinKey)
        throw KernelError::io("Joined orders of another join key");
      if (metaInteger(meta, "joinSources") != static_cast<std::int64_t>(request.parentCounts.size()) ||
          metaInteger(meta, "joinTotal") != request.total)
        throw KernelError::io("Joined orders of other sources");
      Joined joined;
      for (const SortKey key : request.keys) {
        Column<std::int32_t> ids = reader.column<std::int32_t>(sectionOf(key));
        if (static_cast<std::int64_t>(ids.size()) != request.total)
          throw KernelError::io("Invalid index section " + sectionOf(key));
        joined.orders.push_back(std::move(ids));
      }
      for (std::size_t s = 0; s < request.parentCounts.size(); ++s) {
        Column<std::int32_t> ranks = reader.column<std::int32_t>(ranksOf(s));
        if (static_cast<std::int64_t>(ranks.size()) != request.parentCounts[s])
          throw KernelError::io("Invalid index section " + ranksOf(s));
        joined.parentRanks.push_back(std::move(ranks));
      }
      if (::utimensat(AT_FDCWD, file.c_str(), nullptr, 0) != 0)
        throw systemError("Cannot touch index file", file.string(), errno);
      LoadTrace::end("join.map", started, detailOf(request));
      return joined;
    } catch (const std::exception& e) {
      LoadTrace::event("join.map", "discard", std::string("reason=") + e.what());
      ::unlink(file.c_str());
      return std::nullopt;
    }
  } catch (...) {
    return std::nullopt;
  }
}

void JoinedOrdersCache::store(const Request& request, const Joined& joined) const noexcept {
  std::optional<IndexFile::Writer> writer;
  try {
    const auto started = LoadTrace::begin("join.store", detailOf(request));
    createCacheDirectory(directory_);
    CacheWriteLock lock(directory_);
    const std::filesystem::path file = fileOf(request.joinKey);
    struct stat info {};
    if (::lstat(file.c_str(), &info) == 0) {
      LoadTrace::end("join.store", started, detailOf(request) + " skipped=present");
      return;
    }
    if (joined.orders.size() != request.keys.size() || joined.parentRanks.size() != request.parentCounts.size())
      throw KernelError::io("Joined orders do not match their request");
    writer.emplace(file);
    writer->meta()["joinKey"] = request.joinKey;
    writer->meta()["joinSources"] = static_cast<std::int64_t>(request.parentCounts.size());
    writer->meta()["joinTotal"] = request.total;
    for (std::size_t k = 0; k < request.keys.size(); ++k) writer->add(sectionOf(request.keys[k]), joined.orders[k]);
    for (std::size_t s = 0; s < joined.parentRanks.size(); ++s) writer->add(ranksOf(s), joined.parentRanks[s]);
    writer->finish();
    LoadTrace::end("join.store", started, detailOf(request));
  } catch (const std::exception& e) {
    if (writer) writer->abandon();
    reportIndexNotWritten(e.what());
  }
}

}  // namespace tarv
