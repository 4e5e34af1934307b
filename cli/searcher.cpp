#include "cli/searcher.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <system_error>

#include "core/platform/support_paths.h"
#include "kernel/base/kernel_error.h"

namespace tarv::cli {
namespace {

// The command line maps the index files the app wrote, unless told otherwise.
void defaultIndexCacheVariable() {
  if (std::getenv("TARV_INDEX_CACHE") == nullptr)
    ::setenv("TARV_INDEX_CACHE", platform::indexCacheDirectory().c_str(), /*overwrite=*/1);
}

}  // namespace

Searcher::Searcher(std::filesystem::path config, const std::vector<std::string>& arguments)
    : config_(std::move(config)), loader_(loadSnapshot) {
  defaultIndexCacheVariable();
  compatibility_ = Compatibility::load(Compatibility::commandLineLocation(arguments));
}

Searcher::Searcher(std::filesystem::path config, std::shared_ptr<const Compatibility> compatibility, Loader loader)
    : config_(std::move(config)), compatibility_(std::move(compatibility)), loader_(std::move(loader)) {}

std::shared_ptr<const LoadedSnapshot> Searcher::current() {
  std::error_code error;
  if (!std::filesystem::exists(config_, error))
    throw KernelError::io("No index yet: open Tarv and choose the folders to search (" + config_.string() + ").");

  std::optional<std::filesystem::file_time_type> stamp = std::filesystem::last_write_time(config_, error);
  if (error) throw systemError("Cannot read", config_.string(), error.value());
  if (snapshot_ && stamp == loadedStamp_) return snapshot_;

  // Read first, so every configuration mistake is reported as such, whatever
  // the state of the engine behind the loader.
  const Configuration configuration = Configuration::read(config_);
  std::shared_ptr<const LoadedSnapshot> loaded = loader_(configuration, compatibility_);
  if (!loaded) throw KernelError::io("Index snapshot could not be loaded");
  snapshot_ = std::move(loaded);
  loadedStamp_ = stamp;
  return snapshot_;
}

SearchResult Searcher::search(const std::string& query, const std::string& sort, std::int64_t offset,
                              std::int64_t limit) {
  std::shared_ptr<const LoadedSnapshot> snapshot = current();

  // Written so that a huge limit cannot overflow offset + limit.
  const std::int64_t first = std::max<std::int64_t>(offset, 0);
  const std::int64_t wanted =
      limit < 1 ? 0 : (limit > std::numeric_limits<std::int64_t>::max() - first ? std::numeric_limits<std::int64_t>::max()
                                                                                : first + limit);

  const auto started = std::chrono::steady_clock::now();
  const LoadedSnapshot::Matches matches = snapshot->search(query, sort, wanted);
  const auto finished = std::chrono::steady_clock::now();

  SearchResult result;
  result.total = matches.total;
  const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(finished - started).count();
  result.searchMs = roundToHundredths(static_cast<double>(elapsed) / 1e6);

  const auto made = static_cast<std::int64_t>(matches.ids.size());
  if (first >= made) return result;
  const std::int64_t end = std::min(made, wanted);
  result.rows.reserve(static_cast<std::size_t>(end - first));
  for (std::int64_t i = first; i < end; ++i) result.rows.push_back(snapshot->row(matches.ids[static_cast<std::size_t>(i)]));
  return result;
}

StatusReport Searcher::status() {
  std::shared_ptr<const LoadedSnapshot> snapshot = current();
  StatusReport report;
  report.configuration = config_.string();
  report.records = snapshot->totalRecords();
  const auto& sources = snapshot->sources();
  const auto& counts = snapshot->counts();
  for (std::size_t i = 0; i < sources.size(); ++i) {
    const Configuration::Source& source = sources[i];
    report.sources.push_back({source.id, source.label, source.root, i < counts.size() ? counts[i] : 0, source.state,
                              source.scannedAt});
  }
  return report;
}

void Searcher::finishWrites() const {
  if (snapshot_) snapshot_->finishWrites();
}

}  // namespace tarv::cli
