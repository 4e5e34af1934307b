#include "kernel/catalog/compatibility.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <system_error>

#include "core/platform/executable.h"
#include "kernel/base/files.h"
#include "kernel/base/kernel_error.h"
#include "kernel/base/sha256.h"
#include "kernel/catalog/compatibility_cache.h"

namespace tarv {

namespace {

constexpr std::size_t kEntries = 65536;
constexpr const char* kFileName = "vantor-v1.json";

// argv[0] as recorded at start-up; only consulted when /proc/self/exe is not
// readable. Guarded because defaultLocation may run on any thread.
std::mutex programPathLock;
std::string programPath;

// Fills `table` from the first array that follows the quoted key. The scan is
// deliberately lax (every non-digit byte separates numbers) so the file can be
// read in one pass without a JSON parser; only the count and the range are
// checked. Entries past 65536 are counted but never stored.
void extract(std::string_view bytes, std::string_view key, Compatibility::Table& table) {
  std::string needle;
  needle.reserve(key.size() + 2);
  needle.push_back('"');
  needle.append(key);
  needle.push_back('"');

  const std::size_t found = bytes.find(needle);
  if (found == std::string_view::npos) throw KernelError::io("Compatibility table missing: " + std::string(key));

  const std::size_t bracket = bytes.find('[', found + needle.size());
  const char* p = bracket == std::string_view::npos ? bytes.data() + bytes.size() : bytes.data() + bracket + 1;
  const char* const end = bytes.data() + bytes.size();

  std::size_t count = 0;
  std::uint32_t value = 0;
  bool pending = false;
  auto append = [&] {
    if (count < kEntries) table[count] = static_cast<std::uint16_t>(value);
    ++count;
    value = 0;
    pending = false;
  };
  for (; p < end; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    const unsigned digit = c - unsigned('0');
    if (digit < 10) {
      value = value * 10 + digit;  // value < 65536 before, so no overflow
      if (value >= kEntries) throw KernelError::io("Invalid compatibility table: " + std::string(key));
      pending = true;
      continue;
    }
    if (pending) append();
    if (c == ']') break;
  }
  if (pending) append();
  if (count != kEntries)
    throw KernelError::io("Compatibility table must contain 65536 UTF-16 entries: " + std::string(key));
}

constexpr bool isSurrogate(Unit u) noexcept { return (u & 0xF800) == 0xD800; }

// The walk shared by the three collation levels. A position past the end of a
// name reads as unit 0; when the weights agree and either unit is 0 the raw
// units decide and the walk stops, so a prefix sorts before the longer name.
template <class Weight>
inline int walk(TextView a, TextView b, Weight weight) noexcept {
  const std::size_t shared = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < shared; ++i) {
    const Unit ua = a[i];
    const Unit ub = b[i];
    if (ua == ub) {
      if (ua == 0) return 0;
      continue;
    }
    const std::uint32_t wa = weight(ua);
    const std::uint32_t wb = weight(ub);
    if (wa != wb) return wa < wb ? -1 : 1;
    if (ua == 0 || ub == 0) return ua < ub ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  // One name ended: its position reads as 0 against the other's next unit.
  const bool aEnded = a.size() < b.size();
  const Unit next = aEnded ? b[shared] : a[shared];
  const std::uint32_t wEnded = weight(Unit(0));
  const std::uint32_t wNext = weight(next);
  int result;
  if (wEnded != wNext) {
    result = wEnded < wNext ? -1 : 1;
  } else {
    if (next == 0) return 0;
    result = -1;
  }
  return aEnded ? result : -result;
}

}  // namespace

std::shared_ptr<const Compatibility> Compatibility::load(const std::optional<std::filesystem::path>& url) {
  const std::filesystem::path location = url ? *url : defaultLocation();
  if (std::optional<std::filesystem::path> folder = CompatibilityCache::environmentDirectory())
    return CompatibilityCache(*folder).load(location);
  const std::string bytes = files::readAll(location);
  return parse(bytes);
}

std::shared_ptr<const Compatibility> Compatibility::parse(std::string_view bytes) {
  std::shared_ptr<Compatibility> table(new Compatibility());
  extract(bytes, "search", table->search_);
  extract(bytes, "sort", table->order_);
  extract(bytes, "case", table->letterCase_);
  table->fingerprint_ = Sha256::hex(bytes);
  return table;
}

std::shared_ptr<const Compatibility> Compatibility::fromTables(const Table& search, const Table& order,
                                                               const Table& letterCase) {
  std::shared_ptr<Compatibility> table(new Compatibility());
  table->search_ = search;
  table->order_ = order;
  table->letterCase_ = letterCase;
  return table;
}

std::optional<std::filesystem::path> Compatibility::locateBeside(const std::filesystem::path& executableFolder) {
  if (executableFolder.empty()) return std::nullopt;
  const std::filesystem::path parent = executableFolder.parent_path();
  const std::filesystem::path candidates[] = {
      executableFolder / kFileName,
      parent / "Resources" / kFileName,
      parent / "share" / "tarv" / kFileName,
  };
  for (const auto& candidate : candidates) {
    std::error_code error;
    if (std::filesystem::exists(candidate, error)) return candidate;
  }
  return std::nullopt;
}

std::filesystem::path Compatibility::defaultLocation() {
  if (const char* configured = std::getenv("TARV_COMPATIBILITY")) return std::filesystem::path(configured);
  std::string argv0;
  {
    std::lock_guard<std::mutex> guard(programPathLock);
    argv0 = programPath;
  }
  const std::filesystem::path executable = platform::executablePath(argv0);
  if (auto found = locateBeside(executable.parent_path())) return *found;
  throw KernelError::io("Missing compatibility table vantor-v1.json (set TARV_COMPATIBILITY)");
}

std::filesystem::path Compatibility::commandLineLocation(const std::vector<std::string>& arguments) {
  const auto flag = std::find(arguments.begin(), arguments.end(), "--compatibility");
  if (flag != arguments.end() && flag + 1 != arguments.end()) return std::filesystem::path(*(flag + 1));
  return defaultLocation();
}

void Compatibility::setProgramPath(const std::string& argv0) {
  std::lock_guard<std::mutex> guard(programPathLock);
  programPath = argv0;
}

Text Compatibility::fold(TextView units) const {
  Text out(units.size(), Unit(0));
  for (std::size_t i = 0; i < units.size(); ++i) out[i] = static_cast<Unit>(search_[units[i]]);
  return out;
}

bool Compatibility::equal(TextView slice, TextView literal, bool sensitive) const noexcept {
  if (slice.size() != literal.size()) return false;
  if (sensitive) return slice == literal;
  for (std::size_t i = 0; i < slice.size(); ++i) {
    if (search_[slice[i]] != search_[literal[i]]) return false;
  }
  return true;
}

int Compatibility::compareLevel1(TextView a, TextView b) const noexcept {
  return walk(a, b, [this](Unit u) -> std::uint32_t {
    return isSurrogate(u) ? std::uint32_t(u) + 65536u : std::uint32_t(order_[u]);
  });
}

int Compatibility::compareLevel2(TextView a, TextView b) const noexcept {
  return walk(a, b, [this](Unit u) -> std::uint32_t { return letterCase_[u]; });
}

int Compatibility::compareLevel3(TextView a, TextView b) noexcept {
  return walk(a, b, [](Unit u) -> std::uint32_t { return u; });
}

int Compatibility::compareNames(TextView a, TextView b) const noexcept {
  if (int r = compareLevel1(a, b)) return r;
  if (int r = compareLevel2(a, b)) return r;
  return compareLevel3(a, b);
}

}  // namespace tarv
