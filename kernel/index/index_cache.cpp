#include "kernel/index/index_cache.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <future>
#include <mutex>
#include <string_view>
#include <system_error>
#include <utility>

#include "kernel/base/json.h"
#include "kernel/base/kernel_error.h"
#include "kernel/base/sha256.h"
#include "kernel/catalog/catalog_file.h"
#include "kernel/index/index_file.h"
#include "kernel/index/load_trace.h"
#include "kernel/index/pending_writes.h"
#include "kernel/sources/load_progress.h"

namespace tarv {
namespace {

// What the key and the change check read from the source file's status.
struct FileStatus {
  std::int64_t size = 0;
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  std::uint64_t inode = 0;
  std::int64_t device = 0;

  // The change check of a fresh load compares size and modification time.
  bool sameContentStamp(const FileStatus& other) const noexcept {
    return size == other.size && seconds == other.seconds && nanoseconds == other.nanoseconds;
  }
};

std::optional<FileStatus> statusOf(const std::filesystem::path& file) {
  struct stat info {};
  if (::stat(file.c_str(), &info) != 0) return std::nullopt;
  FileStatus status;
  status.size = static_cast<std::int64_t>(info.st_size);
#if defined(__APPLE__)
  status.seconds = static_cast<std::int64_t>(info.st_mtimespec.tv_sec);
  status.nanoseconds = static_cast<std::int64_t>(info.st_mtimespec.tv_nsec);
#else
  status.seconds = static_cast<std::int64_t>(info.st_mtim.tv_sec);
  status.nanoseconds = static_cast<std::int64_t>(info.st_mtim.tv_nsec);
#endif
  status.inode = static_cast<std::uint64_t>(info.st_ino);
  status.device = static_cast<std::int64_t>(info.st_dev);
  return status;
}

FileStatus requiredStatus(const Configuration::Source& source) {
  std::optional<FileStatus> status = statusOf(source.file);
  if (!status) throw KernelError::io("Cannot read source " + source.id);
  return *status;
}

// Version 4 of the key scheme: twelve values in a fixed order, compact JSON
// with slashes escaped, the first half of its SHA-256.
std::string keyOf(const FileStatus& status, const Configuration::Source& source, const Compatibility& compatibility) {
  json::Value values = json::Value::array();
  values.push_back(4);
  values.push_back(source.file.string());
  values.push_back(status.size);
  values.push_back(status.seconds);
  values.push_back(status.nanoseconds);
  values.push_back(status.inode);
  values.push_back(status.device);
  values.push_back(source.id);
  values.push_back(source.format);
  values.push_back(source.root);
  values.push_back(source.virtualDirectory.value_or(""));
  values.push_back(compatibility.fingerprint());
  const std::string text = json::encodeEscapingSlashes(values);
  Sha256 digest;
  digest.update(text.data(), text.size());
  return digest.finishHex().substr(0, 32);
}

bool endsWith(std::string_view text, std::string_view tail) {
  return text.size() >= tail.size() && text.substr(text.size() - tail.size()) == tail;
}

// Writes one cache file: the catalog's sections first, then the index's,
// which `indexOf` supplies (it may wait for the index to be built; a null
// index abandons the side file quietly, the load having failed). Skips a
// file that another writer finished while this one waited for the lock.
// Never throws: a failure is one line on standard error.
template <class IndexOf>
void writeCacheFile(const std::filesystem::path& directory, const std::string& key, const std::string& fingerprint,
                    const Catalog& catalog, IndexOf&& indexOf) noexcept {
  try {
    const std::string tag = "source=" + catalog.sourceId();
    const auto started = LoadTrace::begin("source.store", tag);
    std::optional<IndexFile::Writer> writer;
    try {
      createCacheDirectory(directory);
      CacheWriteLock lock(directory);
      const std::filesystem::path file = directory / (key + IndexCache::kExtension);
      struct stat info {};
      if (::lstat(file.c_str(), &info) == 0) {
        // Another writer (thread or process) finished this very file while
        // this one waited for the lock.
        LoadTrace::end("source.store", started, tag + " skipped=present");
        return;
      }
      writer.emplace(file);
      writer->meta()["fingerprint"] = fingerprint;
      writeCatalog(*writer, catalog);
      writer->startWriteback();
      LoadTrace::event("source.store", "catalog", tag + " bytes=" + std::to_string(writer->position()));
      const SearchIndexPtr index = indexOf();
      if (!index) {
        writer->abandon();
        LoadTrace::end("source.store", started, tag + " skipped=failed");
        return;
      }
      index->write(*writer);
      writer->finish();
    } catch (const std::exception& e) {
      if (writer) writer->abandon();
      reportIndexNotWritten(e.what());
      return;
    }
    LoadTrace::end("source.store", started, tag);
  } catch (...) {
    reportIndexNotWritten("out of memory");
  }
}

}  // namespace

// The meeting point of a load and the background writer it started: the load
// settles the index (null when its build failed), the writer marks the end of
// its write, and store() waits for that end.
class IndexCache::EarlyWrite {
 public:
  void settle(SearchIndexPtr index) noexcept {
    std::lock_guard<std::mutex> hold(lock_);
    index_ = std::move(index);
    settled_ = true;
    changed_.notify_all();
  }
  SearchIndexPtr awaitIndex() const {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [this] { return settled_; });
    return index_;
  }
  void markDone() noexcept {
    std::lock_guard<std::mutex> hold(lock_);
    done_ = true;
    changed_.notify_all();
  }
  void wait() const {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [this] { return done_; });
  }

 private:
  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  SearchIndexPtr index_;
  bool settled_ = false;
  bool done_ = false;
};

namespace {

// Starts the background writer of a fresh load; null when no thread could be
// started (store() then writes the file the ordinary way).
std::shared_ptr<IndexCache::EarlyWrite> startEarlyWrite(const std::filesystem::path& directory, const std::string& key,
                                                        const std::string& fingerprint, const CatalogPtr& catalog) {
  auto early = std::make_shared<IndexCache::EarlyWrite>();
  try {
    PendingWrites::start([directory, key, fingerprint, catalog, early] {
      writeCacheFile(directory, key, fingerprint, *catalog, [&] { return early->awaitIndex(); });
      early->markDone();
    });
  } catch (const std::system_error&) {
    return nullptr;
  }
  return early;
}

}  // namespace

std::optional<std::filesystem::path> IndexCache::environmentDirectory() {
  const char* value = std::getenv("TARV_INDEX_CACHE");
  // A relative value would name a different folder in every working
  // directory, so it means "no cache" rather than a guess.
  if (value == nullptr || value[0] != '/') return std::nullopt;
  return std::filesystem::path(value);
}

IndexCache::IndexCache() : directory_(environmentDirectory()) {}

IndexCache::IndexCache(std::optional<std::filesystem::path> directory) : directory_(std::move(directory)) {}

std::filesystem::path IndexCache::fileOf(const std::string& key) const { return *directory_ / (key + kExtension); }

std::string IndexCache::key(const Configuration::Source& source, const Compatibility& compatibility) {
  return keyOf(requiredStatus(source), source, compatibility);
}

IndexCache::Loaded IndexCache::load(const Configuration::Source& source,
                                    const std::shared_ptr<const Compatibility>& compatibility) const {
  return loadWith(source, compatibility, /*storeEarly=*/false);
}

IndexCache::Loaded IndexCache::loadStoring(const Configuration::Source& source,
                                           const std::shared_ptr<const Compatibility>& compatibility) const {
  return loadWith(source, compatibility, /*storeEarly=*/true);
}

IndexCache::Loaded IndexCache::loadWith(const Configuration::Source& source,
                                        const std::shared_ptr<const Compatibility>& compatibility,
                                        bool storeEarly) const {
  // The status behind the key is also the "before" stamp of a fresh load, so
  // a file that changes between the two can never be stored under a key
  // that describes the other version.
  const FileStatus before = requiredStatus(source);
  const std::string key = keyOf(before, source, *compatibility);
  if (directory_) {
    if (std::optional<Loaded> cached = mapCached(source, key, compatibility)) return std::move(*cached);
  }

  const std::string tag = "source=" + source.id;
  LoadProgress::Scope progress(source.id);  // a front end may show how far the fresh load has come
  auto fingerprintOf = [&source, tag, bytes = before.size] {
    const auto started = LoadTrace::begin("source.sha256", tag + " bytes=" + std::to_string(bytes));
    std::string digest = Configuration::sha256(source.file);
    LoadTrace::end("source.sha256", started, tag);
    return digest;
  };
  // The digest and the parse both read the whole file and share nothing, so
  // the digest runs beside the parse: the load then costs the longer of the
  // two rather than their sum. Without a thread to spare it runs first.
  std::future<std::string> digest;
  try {
    digest = std::async(std::launch::async, fingerprintOf);
  } catch (const std::system_error&) {
    digest = std::async(std::launch::deferred, fingerprintOf);
    digest.wait();
  }

  auto started = LoadTrace::begin("source.load", tag + " format=" + source.format);
  auto catalog = std::make_shared<Catalog>(source.load());
  LoadTrace::end("source.load", started, tag + " records=" + std::to_string(catalog->count()));
  std::string fingerprint = digest.get();

  const std::optional<FileStatus> after = statusOf(source.file);
  if (!after || !before.sameContentStamp(*after))
    throw KernelError::io("Source changed during loading: " + source.id);

  // Labels come from the configuration, not from the file, and must be in
  // place before the catalog is shared.
  catalog->applyDeviceLabels(source.deviceLabels);
  CatalogPtr shared = std::move(catalog);

  // The catalog is final here, and it is most of the cache file: writing it
  // now overlaps the write with the index build instead of adding it after.
  std::shared_ptr<EarlyWrite> early;
  if (storeEarly && directory_) early = startEarlyWrite(*directory_, key, fingerprint, shared);
  // Whatever happens below, the writer must learn the outcome, or it would
  // wait for an index forever.
  struct Outcome {
    EarlyWrite* write;
    SearchIndexPtr index;
    ~Outcome() {
      if (write) write->settle(std::move(index));
    }
  } outcome{early.get(), nullptr};

  started = LoadTrace::begin("source.index", tag);
  LoadProgress::phase(LoadProgress::Phase::indexing);
  auto index = std::make_shared<const SearchIndex>(shared, compatibility);
  LoadTrace::end("source.index", started, tag);
  outcome.index = index;
  return Loaded{std::move(shared), std::move(index), std::move(fingerprint), key, /*cached=*/false, std::move(early)};
}

std::optional<IndexCache::Loaded> IndexCache::mapCached(const Configuration::Source& source, const std::string& key,
                                                        const std::shared_ptr<const Compatibility>& compatibility) const {
  const std::filesystem::path file = fileOf(key);
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0) return std::nullopt;

  const std::string tag = "source=" + source.id;
  const auto started = LoadTrace::begin("source.map", tag);
  try {
    IndexFile::Reader reader(file);
    const json::Value& meta = reader.meta();
    const auto fingerprint = meta.find("fingerprint");
    if (fingerprint == meta.end() || !fingerprint->is_string())
      throw KernelError::io("Index file without fingerprint");

    // Labels stored with the catalog are those of the configuration that
    // wrote it; this configuration's labels replace them all.
    Catalog::Parts parts = readCatalog(reader, {}, source.id).parts();
    parts.deviceLabels.assign(parts.devices.size(), std::nullopt);
    auto catalog = std::make_shared<Catalog>(std::move(parts));
    catalog->applyDeviceLabels(source.deviceLabels);
    CatalogPtr shared = std::move(catalog);
    auto index = std::make_shared<const SearchIndex>(reader, shared, compatibility);

    // A fresh modification time marks the file as in use for pruning.
    if (::utimensat(AT_FDCWD, file.c_str(), nullptr, 0) != 0)
      throw systemError("Cannot touch index file", file.string(), errno);

    LoadTrace::end("source.map", started, tag + " records=" + std::to_string(shared->count()));
    return Loaded{std::move(shared), std::move(index), fingerprint->get<std::string>(), key, /*cached=*/true, nullptr};
  } catch (const std::exception& e) {
    // An unusable cache file is never fatal: it goes, and the source loads
    // afresh (and is stored again).
    LoadTrace::event("source.map", "discard", tag + " reason=" + e.what());
    ::unlink(file.c_str());
    return std::nullopt;
  }
}

void IndexCache::store(const Loaded& loaded) const noexcept {
  if (!directory_ || loaded.cached || !loaded.catalog || !loaded.index) return;
  if (loaded.writing) {
    try {
      loaded.writing->wait();
    } catch (...) {
      // Only the wait failed: the write goes on in the background, inside
      // the pending-writes group, and reports its own failure.
    }
    return;
  }
  writeCacheFile(*directory_, loaded.key, loaded.fingerprint, *loaded.catalog, [&] { return loaded.index; });
}

void IndexCache::pruneStale(const std::set<std::string>& keeping) const noexcept {
  if (!directory_) return;
  try {
    std::error_code error;
    std::filesystem::directory_iterator entries(*directory_, error);
    if (error) return;
    const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
    for (const auto& entry : entries) {
      const std::string name = entry.path().filename().string();
      std::string_view key;
      if (endsWith(name, kPartialExtension))
        key = std::string_view(name).substr(0, name.size() - std::string_view(kPartialExtension).size());
      else if (endsWith(name, kExtension))
        key = std::string_view(name).substr(0, name.size() - std::string_view(kExtension).size());
      else
        continue;
      if (keeping.count(std::string(key)) != 0) continue;
      struct stat info {};
      // Without a readable date an entry counts as infinitely old.
      if (::lstat(entry.path().c_str(), &info) == 0 &&
          now - static_cast<std::int64_t>(info.st_mtime) <= kStaleAfter.count())
        continue;
      ::unlink(entry.path().c_str());
    }
  } catch (...) {
    // Listing failed halfway; what is left is pruned next time.
  }
}

void IndexCache::storeInBackground(std::vector<Loaded> loads, std::set<std::string> keeping) const noexcept {
  if (!directory_) return;
  try {
    PendingWrites::start([cache = *this, loads = std::move(loads), keeping = std::move(keeping)] {
      for (const Loaded& loaded : loads) cache.store(loaded);
      cache.pruneStale(keeping);
    });
  } catch (const std::exception& e) {
    reportIndexNotWritten(e.what());
  }
}

CacheWriteLock::CacheWriteLock(const std::filesystem::path& directory) noexcept {
  handle_ = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (handle_ < 0) return;
  int result;
  do {
    result = ::flock(handle_, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    ::close(handle_);
    handle_ = -1;
  }
}

CacheWriteLock::~CacheWriteLock() {
  // Closing the descriptor releases the lock.
  if (handle_ >= 0) ::close(handle_);
}

void createCacheDirectory(const std::filesystem::path& directory) {
  // Each missing component is made 0700 (std::filesystem would use 0777
  // minus the umask); existing folders keep their permissions.
  std::filesystem::path partial;
  for (const auto& component : directory) {
    partial /= component;
    if (partial.empty() || partial == partial.root_path()) continue;
    if (::mkdir(partial.c_str(), 0700) == 0) continue;
    const int error = errno;
    struct stat info {};
    if (error == EEXIST && ::stat(partial.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) continue;
    throw systemError("Cannot create cache directory", partial.string(), error == EEXIST ? ENOTDIR : error);
  }
}

void reportIndexNotWritten(std::string_view reason) noexcept {
  try {
    std::string line = "Tarv: index file not written (";
    line += reason;
    line += ")\n";
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
      const ssize_t written = ::write(STDERR_FILENO, data, left);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return;
      data += written;
      left -= static_cast<std::size_t>(written);
    }
  } catch (...) {
  }
}

}  // namespace tarv
