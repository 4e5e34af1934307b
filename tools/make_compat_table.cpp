// tarv-make-compat-table [OUTPUT]
//
// Writes the comparison table file (data/vantor-v1.json) from the Unicode
// data of ICU, deterministically: the same ICU version gives the same bytes.
// Without OUTPUT the file goes to standard output.
//
// The file is a JSON object with the members "case", "description", "search"
// and "sort" in that order; each array has 65536 integers, entry i being the
// value for the UTF-16 code unit i, sixteen entries per line.
//
// The rule, per code unit u:
// - search: the simple case folding of u, lower-cased (so Cherokee and the
//   like end in lower case too, and final sigma, long s, micro sign and dotted
//   capital I fold with their ordinary letters). When the folded unit is a
//   Latin, Greek or Cyrillic letter whose canonical decomposition is one base
//   letter followed only by combining marks, the folded base letter is taken
//   instead, so "cafe" finds "Café" and "Ελλαδα" finds "Ελλάδα". Surrogate
//   units, and units whose folding would leave the BMP, map to themselves.
//   The mapping is made idempotent: search[search[u]] == search[u].
// - sort: the rank of the primary-strength sort key of the one-unit string
//   in the root collation (ties share a rank; expansions rank where their
//   key falls). NUL is 0; every other unit is at least 1, the units that are
//   ignorable at the primary level all sharing rank 1.
// - case: within each group of units sharing a sort rank, the rank (from 0)
//   of the tertiary-strength sort key of the one-unit string, with lower case
//   ordered first; accents (secondary differences) rank after case.

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/ucol.h>
#include <unicode/uscript.h>
#include <unicode/uvernum.h>
#include <unicode/uversion.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "kernel/base/files.h"
#include "kernel/base/kernel_error.h"

namespace {

constexpr std::size_t kUnits = 65536;
using Table = std::array<std::uint16_t, kUnits>;
using SortKey = std::string;  // compared bytewise, as ICU defines

bool isSurrogate(std::uint32_t u) { return (u & 0xF800) == 0xD800; }

void check(UErrorCode status, const char* what) {
  if (U_FAILURE(status)) throw std::runtime_error(std::string(what) + ": " + u_errorName(status));
}

// Simple case folding, then the simple lower-case mapping; stays in the BMP.
UChar32 foldUnit(UChar32 c) {
  const UChar32 folded = u_tolower(u_foldCase(c, U_FOLD_CASE_DEFAULT));
  return folded > 0xFFFF ? c : folded;
}

bool isFoldedScript(UChar32 c) {
  UErrorCode status = U_ZERO_ERROR;
  const UScriptCode script = uscript_getScript(c, &status);
  check(status, "uscript_getScript");
  return script == USCRIPT_LATIN || script == USCRIPT_GREEK || script == USCRIPT_CYRILLIC;
}

bool isLetter(UChar32 c) { return (U_GET_GC_MASK(c) & U_GC_L_MASK) != 0; }
bool isMark(UChar32 c) { return (U_GET_GC_MASK(c) & U_GC_M_MASK) != 0; }

// The base letter of a precomposed Latin/Greek/Cyrillic letter with
// diacritics, or -1 when `c` is not one.
UChar32 baseLetter(const icu::Normalizer2& nfd, UChar32 c) {
  if (!isLetter(c) || !isFoldedScript(c)) return -1;
  icu::UnicodeString decomposition;
  if (!nfd.getDecomposition(c, decomposition)) return -1;
  const UChar32 base = decomposition.char32At(0);
  if (!isLetter(base) || !isFoldedScript(base)) return -1;
  int32_t i = U16_LENGTH(base);
  if (i >= decomposition.length()) return -1;  // a singleton, not base plus marks
  while (i < decomposition.length()) {
    const UChar32 mark = decomposition.char32At(i);
    if (!isMark(mark)) return -1;
    i += U16_LENGTH(mark);
  }
  return base;
}

Table searchTable() {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
  check(status, "Normalizer2::getNFDInstance");
  Table search{};
  for (std::uint32_t u = 0; u < kUnits; ++u) {
    if (isSurrogate(u)) {
      search[u] = static_cast<std::uint16_t>(u);
      continue;
    }
    UChar32 folded = foldUnit(static_cast<UChar32>(u));
    const UChar32 base = baseLetter(*nfd, folded);
    if (base >= 0) folded = foldUnit(base);
    search[u] = static_cast<std::uint16_t>(folded > 0xFFFF || isSurrogate(folded) ? u : folded);
  }
  // Follow chains until every value is a fixed point, so folding twice never
  // differs from folding once.
  for (int round = 0;; ++round) {
    bool changed = false;
    for (std::uint32_t u = 0; u < kUnits; ++u) {
      const std::uint16_t next = search[search[u]];
      if (next != search[u]) {
        search[u] = next;
        changed = true;
      }
    }
    if (!changed) break;
    if (round == 8) throw std::runtime_error("search folding does not settle");
  }
  return search;
}

class Collator {
 public:
  explicit Collator(UColAttributeValue strength) {
    UErrorCode status = U_ZERO_ERROR;
    collator_ = ucol_open("", &status);  // the root collation
    check(status, "ucol_open");
    ucol_setAttribute(collator_, UCOL_STRENGTH, strength, &status);
    if (strength == UCOL_TERTIARY) ucol_setAttribute(collator_, UCOL_CASE_FIRST, UCOL_LOWER_FIRST, &status);
    check(status, "ucol_setAttribute");
  }
  ~Collator() { ucol_close(collator_); }
  Collator(const Collator&) = delete;
  Collator& operator=(const Collator&) = delete;

  SortKey key(std::uint32_t unit) const {
    const UChar text[1] = {static_cast<UChar>(unit)};
    std::uint8_t buffer[256];
    int32_t length = ucol_getSortKey(collator_, text, 1, buffer, sizeof buffer);
    if (length <= 0 || length > static_cast<int32_t>(sizeof buffer))
      throw std::runtime_error("unexpected sort key length for unit " + std::to_string(unit));
    return SortKey(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
  }

 private:
  UCollator* collator_ = nullptr;
};

// Ranks of `keys` among their distinct values, from `first` upwards.
std::vector<std::uint32_t> ranks(const std::vector<SortKey>& keys, std::uint32_t first) {
  std::vector<SortKey> distinct(keys);
  std::sort(distinct.begin(), distinct.end());
  distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
  std::vector<std::uint32_t> out(keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) {
    out[i] = first + static_cast<std::uint32_t>(std::lower_bound(distinct.begin(), distinct.end(), keys[i]) - distinct.begin());
  }
  return out;
}

void sortAndCaseTables(Table& sort, Table& letterCase) {
  const Collator primary(UCOL_PRIMARY);
  const Collator tertiary(UCOL_TERTIARY);

  // NUL stands apart at 0; the rest rank from 1, the empty (ignorable) key first.
  std::vector<SortKey> primaryKeys;
  primaryKeys.reserve(kUnits - 1);
  for (std::uint32_t u = 1; u < kUnits; ++u) primaryKeys.push_back(primary.key(u));
  const std::vector<std::uint32_t> primaryRanks = ranks(primaryKeys, 1);
  sort[0] = 0;
  for (std::uint32_t u = 1; u < kUnits; ++u) {
    if (primaryRanks[u - 1] >= kUnits) throw std::runtime_error("more primary weights than fit in 16 bits");
    sort[u] = static_cast<std::uint16_t>(primaryRanks[u - 1]);
  }

  std::map<std::uint16_t, std::vector<std::uint32_t>> groups;
  for (std::uint32_t u = 0; u < kUnits; ++u) groups[sort[u]].push_back(u);
  for (const auto& [rank, members] : groups) {
    std::vector<SortKey> keys;
    keys.reserve(members.size());
    for (std::uint32_t u : members) keys.push_back(tertiary.key(u));
    const std::vector<std::uint32_t> caseRanks = ranks(keys, 0);
    for (std::size_t i = 0; i < members.size(); ++i) letterCase[members[i]] = static_cast<std::uint16_t>(caseRanks[i]);
  }
}

void appendArray(std::string& out, const char* key, const Table& table) {
  out += '"';
  out += key;
  out += "\": [\n";
  char number[8];
  for (std::size_t i = 0; i < kUnits; ++i) {
    const int n = std::snprintf(number, sizeof number, "%u", static_cast<unsigned>(table[i]));
    out.append(number, static_cast<std::size_t>(n));
    if (i + 1 == kUnits) out += '\n';
    else out += (i % 16 == 15) ? ",\n" : ",";
  }
  out += ']';
}

std::string render(const Table& search, const Table& sort, const Table& letterCase) {
  std::string out;
  out.reserve(1 << 21);
  out += "{\n";
  appendArray(out, "case", letterCase);
  out += ",\n\"description\": \"Per UTF-16 code unit: search is the folding for case-insensitive matching, "
         "sort the primary collation rank, case the rank by case and accents within a sort rank. "
         "Generated by tarv-make-compat-table from the root collation of ICU " U_ICU_VERSION
         " (Unicode " U_UNICODE_VERSION ").\",\n";
  appendArray(out, "search", search);
  out += ",\n";
  appendArray(out, "sort", sort);
  out += "\n}\n";
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 || (argc == 2 && (std::string(argv[1]).empty() || argv[1][0] == '-'))) {
    std::cerr << "usage: tarv-make-compat-table [OUTPUT]\n";
    return 2;
  }
  try {
    const Table search = searchTable();
    Table sort{};
    Table letterCase{};
    sortAndCaseTables(sort, letterCase);
    const std::string bytes = render(search, sort, letterCase);
    if (argc == 2) {
      tarv::files::writeAtomically(argv[1], bytes, 0644);
    } else {
      std::cout.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      std::cout.flush();
      if (!std::cout) throw std::runtime_error("cannot write to standard output");
    }
  } catch (const tarv::KernelError& error) {
    std::cerr << "tarv-make-compat-table: " << error.message() << '\n';
    return 1;
  } catch (const std::exception& error) {
    std::cerr << "tarv-make-compat-table: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
