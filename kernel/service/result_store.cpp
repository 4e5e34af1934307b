#include "kernel/service/result_store.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>
#include <random>

#include "kernel/base/kernel_error.h"

namespace tarv {

std::int64_t ResultStore::wallClockMillis() {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::int64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

std::string ResultStore::randomId() {
  std::array<unsigned char, 16> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    // The system generator failing is near impossible; ids only need to be
    // unguessable among the few results of one local client, so a seeded
    // engine is an acceptable fallback rather than a failed query.
    static thread_local std::mt19937_64 engine{std::random_device{}()};
    for (unsigned char& b : bytes) b = static_cast<unsigned char>(engine());
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789abcdef";
  std::string id;
  id.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) id.push_back('-');
    id.push_back(kHex[bytes[i] >> 4]);
    id.push_back(kHex[bytes[i] & 0x0F]);
  }
  return id;
}

void ResultStore::purge(std::int64_t now, Entries& released) {
  // The common case on the read path: nothing expired, nothing to move.
  if (std::none_of(entries_.begin(), entries_.end(), [now](const auto& item) { return item.second.expiresAt <= now; }))
    return;
  Entries kept;
  kept.reserve(entries_.size());
  for (auto& item : entries_) (item.second.expiresAt <= now ? released : kept).push_back(std::move(item));
  entries_ = std::move(kept);
}

ResultStore::Entry ResultStore::add(Column<std::int32_t> rows, std::string sort, double searchMs, Released* handOver) {
  // Declared before the guard, so evicted results are freed after the lock
  // is let go: freeing tens of megabytes of ids takes milliseconds, which
  // page reads should not wait for.
  Entries released;
  std::lock_guard<std::mutex> guard(lock_);
  const std::int64_t now = clock_();
  purge(now, released);

  const std::int64_t needed = bytesOf(rows.size());
  if (needed > limits_.maxBytes) throw KernelError::invalid("Result exceeds memory limit; narrow the query");

  std::int64_t held = 0;
  for (const auto& item : entries_) held += bytesOf(item.second.rows.size());
  // Oldest by creation goes first: reads never move an entry.
  std::size_t evicted = 0;
  while (evicted < entries_.size() &&
         (entries_.size() - evicted >= limits_.maxEntries || held + needed > limits_.maxBytes)) {
    held -= bytesOf(entries_[evicted].second.rows.size());
    ++evicted;
  }
  std::move(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(evicted), std::back_inserter(released));
  entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(evicted));

  Entry entry{randomId(), std::move(rows), std::move(sort), searchMs, now + limits_.ttlMillis};
  entries_.emplace_back(entry.id, entry);
  if (handOver != nullptr)
    for (auto& item : released) handOver->push_back(std::move(item.second.rows));
  return entry;
}

std::optional<ResultStore::Entry> ResultStore::get(const std::string& id) {
  Entries released;  // freed after the lock is let go, as in add()
  std::lock_guard<std::mutex> guard(lock_);
  const std::int64_t now = clock_();
  purge(now, released);
  for (auto& item : entries_) {
    if (item.first != id) continue;
    item.second.expiresAt = now + limits_.ttlMillis;
    return item.second;
  }
  return std::nullopt;
}

void ResultStore::remove(const std::string& id) {
  Entries released;  // freed after the lock is let go, as in add()
  std::lock_guard<std::mutex> guard(lock_);
  for (auto item = entries_.begin(); item != entries_.end(); ++item) {
    if (item->first != id) continue;
    released.push_back(std::move(*item));
    entries_.erase(item);
    break;
  }
}

std::int64_t ResultStore::bytes() const {
  std::lock_guard<std::mutex> guard(lock_);
  std::int64_t held = 0;
  for (const auto& item : entries_) held += bytesOf(item.second.rows.size());
  return held;
}

std::size_t ResultStore::size() const {
  std::lock_guard<std::mutex> guard(lock_);
  return entries_.size();
}

}  // namespace tarv
