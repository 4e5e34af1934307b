#pragma once
// Shared pieces of the query tests: a small synthetic comparison table
// (A..Z fold to a..z, order = search, letterCase = identity), parsing with a
// fixed present moment, and tree rendering.

#include <memory>
#include <string>

#include "kernel/base/text.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/query/query.h"
#include "kernel/query/query_parser.h"

namespace tarv::testing {

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

}  // namespace tarv::testing
