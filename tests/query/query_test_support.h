#pragma once
// Shared pieces of the query tests: a small synthetic comparison table
// (A..Z fold to a..z, order = search, letterCase = identity), parsing with a
// fixed present moment, the shipped table, tree rendering, and the planner's answer checked
// row by row against Query::matches.

#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "kernel/base/text.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/query/execution_planner.h"
#include "kernel/query/query.h"
#include "kernel/query/query_parser.h"
#include "tests/support/process.h"

namespace tarv::testing {

// The shipped comparison table, loaded once.
inline std::shared_ptr<const Compatibility> shippedTable() {
  static const auto table = Compatibility::load(committedTable());
  return table;
}

inline std::shared_ptr<const Compatibility> asciiTable() {
  static const std::shared_ptr<const Compatibility> table = [] {
    auto search = std::make_unique<Compatibility::Table>();
    auto identity = std::make_unique<Compatibility::Table>();
    for (std::size_t u = 0; u < 65536; ++u) {
      (*identity)[u] = static_cast<std::uint16_t>(u);
      (*search)[u] = static_cast<std::uint16_t>(u >= 'A' && u <= 'Z' ? u + 32 : u);
    }
    return Compatibility::fromTables(*search, *search, *identity);
  }();
  return table;
}

// 2026-03-15 10:00:00 UTC, a Sunday, with local time UTC+2.
inline constexpr Query::Moment kFixedMoment{1773568800, 7200};

inline Query::TermPtr parseWith(std::string_view query, PathFlavor flavor = PathFlavor::posix,
                                Query::Moment moment = kFixedMoment) {
  Query::Parser parser(utf16(query), *asciiTable(), flavor);
  parser.moment = moment;
  return parser.parseAnd();
}

inline std::string shape(std::string_view query, PathFlavor flavor = PathFlavor::posix) {
  return Query::describe(*parseWith(query, flavor));
}

// The planner's rows for `query` against Query::matches over every row (the
// definition of a correct answer); reports the first row that differs and
// returns how many rows match.
inline std::int64_t expectPlannerExact(const ExecutionPlanner& planner, const std::string& query,
                                       const std::string& label = {}) {
  const SearchIndex& index = planner.index();
  auto root = Query::parse(utf16(query), index.compatibility(), index.catalog().pathFlavor());
  Query::markSizeSemantics(*root, index.catalog().directorySizes());
  const ExecutionPlanner::Selection selection = planner.select(utf16(query));
  std::int64_t expected = 0;
  bool reported = false;
  for (std::int32_t r = 0; r < index.catalog().count(); ++r) {
    const bool want = Query::matches(*root, index.catalog(), r, index.compatibility());
    expected += want ? 1 : 0;
    if (selection.rows.test(r) != want && !reported) {
      ADD_FAILURE() << label << " \"" << query << "\": row " << r << " " << index.catalog().displayPath(r)
                    << (want ? " missing" : " not a match");
      reported = true;
    }
  }
  EXPECT_EQ(selection.count, expected) << label << " \"" << query << "\"";
  return expected;
}

}  // namespace tarv::testing
