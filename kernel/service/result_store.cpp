#include "kernel/service/result_store.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <chrono>
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

void ResultStore::purge(std::int64_t now) {
  std::erase_if(entries_, [now](const auto& item) { return item.second.expiresAt <= now; });
}

ResultStore::Entry ResultStore::add(Column<std::int32_t> rows, std::string sort, double searchMs) {
  std::lock_guard<std::mutex> guard(lock_);
  const std::int64_t now = clock_();
  purge(now);

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
  entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(evicted));

  Entry entry{randomId(), std::move(rows), std::move(sort), searchMs, now + limits_.ttlMillis};
  entries_.emplace_back(entry.id, entry);
  return entry;
}

std::optional<ResultStore::Entry> ResultStore::get(const std::string& id) {
  std::lock_guard<std::mutex> guard(lock_);
  const std::int64_t now = clock_();
  purge(now);
  for (auto& item : entries_) {
    if (item.first != id) continue;
    item.second.expiresAt = now + limits_.ttlMillis;
    return item.second;
  }
  return std::nullopt;
}

void ResultStore::remove(const std::string& id) {
  std::lock_guard<std::mutex> guard(lock_);
  std::erase_if(entries_, [&id](const auto& item) { return item.first == id; });
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
