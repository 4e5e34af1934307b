#pragma once
// IndexCache: decides per source whether a stored index file can be mapped
// instead of reading the source again, loads it afresh otherwise, writes fresh
// loads back and removes stale cache files.
//
// Cache files live in one directory (TARV_INDEX_CACHE when it is an absolute
// path; otherwise there is no cache and nothing is written), named by the
// source's key: "<key>.tarvidx", written through "<key>.tarvidx.partial" and a
// rename. A key is derived from the source file's status (path, size,
// modification time, inode, device), the source's declaration (id, format,
// root, virtual directory) and the comparison table's fingerprint, so any
// change to one of them gives a fresh load; checking the cache costs one
// status call, never a read of the file.
//
// An IndexCache object only holds the directory; it may be shared between
// threads. Writes into one directory are serialised across threads and
// processes by a lock on the directory, and a write whose file another
// writer has just finished is skipped.

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/config/configuration.h"
#include "kernel/query/search_index.h"

namespace tarv {

class IndexCache {
 public:
  // A cache file write that loadStoring() started before the search index was
  // built; opaque outside the cache.
  class EarlyWrite;

  // One loaded source: its catalog (carrying the configuration's device
  // labels), its search index, the source file's SHA-256, its cache key, and
  // whether it was mapped from a cache file.
  struct Loaded {
    CatalogPtr catalog;
    SearchIndexPtr index;
    std::string fingerprint;
    std::string key;
    bool cached = false;
    // Set by loadStoring() when this fresh load's cache file is already being
    // written; store() then waits for that write instead of starting another.
    std::shared_ptr<const EarlyWrite> writing;
  };

  static constexpr const char* kExtension = ".tarvidx";
  static constexpr const char* kPartialExtension = ".tarvidx.partial";
  // Files of keys not in use are removed once untouched this long (three days),
  // so two configurations used in turn do not evict each other.
  static constexpr std::chrono::seconds kStaleAfter{259'200};

  // The cache directory named by TARV_INDEX_CACHE (read at each call), or none.
  static std::optional<std::filesystem::path> environmentDirectory();

  // A cache in TARV_INDEX_CACHE's directory (or no cache).
  IndexCache();
  // A cache in `directory`; none means every load is fresh and nothing is stored.
  explicit IndexCache(std::optional<std::filesystem::path> directory);

  const std::optional<std::filesystem::path>& directory() const noexcept { return directory_; }
  // directory / (key + ".tarvidx"); requires a directory.
  std::filesystem::path fileOf(const std::string& key) const;

  // The source's cache key: 32 lowercase hex digits. Throws
  // KernelError::io("Cannot read source " + id) when the file's status
  // cannot be read.
  static std::string key(const Configuration::Source& source, const Compatibility& compatibility);

  // The source mapped from its cache file when one is usable (an unusable one
  // is deleted silently), else loaded afresh: fingerprint, reader, search
  // index. Throws "Cannot read source " + id, KernelError::io("Source changed
  // during loading: " + id) when the file's size or modification time moved
  // while it was read, and the reader's own errors.
  Loaded load(const Configuration::Source& source, const std::shared_ptr<const Compatibility>& compatibility) const;

  // load(), and for a fresh load with a cache directory the cache file is
  // started as soon as the catalog is complete: a background thread in the
  // PendingWrites group writes the catalog's sections while this thread
  // builds the search index, then adds the index's sections and moves the
  // file into place. The file appears only complete (side file and rename,
  // as store()). When the index build fails the side file is abandoned
  // without a message. Same errors as load().
  Loaded loadStoring(const Configuration::Source& source,
                     const std::shared_ptr<const Compatibility>& compatibility) const;

  // Writes a fresh load to its cache file. Cached loads and a cache without a
  // directory write nothing; a load whose write loadStoring() started waits
  // for that write to end. Never throws: a failure is one line on standard
  // error ("Tarv: index file not written (<reason>)").
  void store(const Loaded& loaded) const noexcept;

  // Removes "<key>.tarvidx" and "<key>.tarvidx.partial" entries whose key is
  // not in `keeping` and whose modification time is older than kStaleAfter
  // (an entry without one counts as infinitely old). Failures are ignored.
  void pruneStale(const std::set<std::string>& keeping) const noexcept;

  // In the background (one detached thread in the PendingWrites group):
  // store every load that is not cached, then prune with `keeping`. Does
  // nothing without a directory. Never throws.
  void storeInBackground(std::vector<Loaded> loads, std::set<std::string> keeping) const noexcept;

 private:
  Loaded loadWith(const Configuration::Source& source, const std::shared_ptr<const Compatibility>& compatibility,
                  bool storeEarly) const;
  std::optional<Loaded> mapCached(const Configuration::Source& source, const std::string& key,
                                  const std::shared_ptr<const Compatibility>& compatibility) const;

  std::optional<std::filesystem::path> directory_;
};

// Holds an exclusive lock on a cache directory (flock on the directory
// itself) for the life of the object, so that writers of different threads
// and processes never interleave on one side file. Best effort: when the
// directory cannot be opened or locked, the object holds nothing.
class CacheWriteLock {
 public:
  explicit CacheWriteLock(const std::filesystem::path& directory) noexcept;
  ~CacheWriteLock();
  CacheWriteLock(const CacheWriteLock&) = delete;
  CacheWriteLock& operator=(const CacheWriteLock&) = delete;

 private:
  int handle_ = -1;
};

// Creates `directory` and any missing parents with mode 0700. Throws
// KernelError::io("Cannot create cache directory <path>: <reason>").
void createCacheDirectory(const std::filesystem::path& directory);

// Writes "Tarv: index file not written (<reason>)" and a line feed to
// standard error in one write. Never throws.
void reportIndexNotWritten(std::string_view reason) noexcept;

}  // namespace tarv
