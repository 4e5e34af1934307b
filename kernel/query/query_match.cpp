// The per-record match rules: the plain definition of which rows a term
// selects. Faster strategies elsewhere must agree with these answers.

#include <vector>

#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/query/query.h"

namespace tarv {
namespace {

using Kind = Query::Kind;
using Term = Query::Term;

// A subject held in one piece (a name).
struct OnePiece {
  TextView units;
  std::size_t size() const { return units.size(); }
  Unit operator[](std::size_t i) const { return units[i]; }
};

// A full path held as parent text and name, so that no path is built per row.
struct TwoPieces {
  TextView head;
  TextView tail;
  std::size_t size() const { return head.size() + tail.size(); }
  Unit operator[](std::size_t i) const { return i < head.size() ? head[i] : tail[i - head.size()]; }
};

// Whether pattern unit i (of the term's text) accepts subject unit u.
inline bool unitMatches(const Term& term, std::size_t i, Unit u, const Compatibility& compatibility) {
  return term.sensitive ? term.text[i] == u : term.text[i] == compatibility.fold(u);
}

template <class Subject>
bool wildcardOn(const Term& term, const Subject& subject, const Compatibility& compatibility) {
  // `*` and `?` are recognised in `raw`, so an unusual fold of them cannot
  // change the pattern; literal units compare through `text`.
  const TextView raw = term.raw;
  const std::size_t m = raw.size();
  const std::size_t n = subject.size();
  std::size_t p = 0;
  std::size_t s = 0;
  std::size_t star = TextView::npos;
  std::size_t mark = 0;
  while (s < n) {
    if (p < m && raw[p] == u'*') {
      star = p++;
      mark = s;
    } else if (p < m && (raw[p] == u'?' || unitMatches(term, p, subject[s], compatibility))) {
      ++p;
      ++s;
    } else if (star != TextView::npos) {
      // Back to the last `*`, which absorbs one more unit.
      p = star + 1;
      s = ++mark;
    } else {
      return false;
    }
  }
  while (p < m && raw[p] == u'*') ++p;
  return p == m;
}

template <class Subject>
bool textOn(const Term& term, const Subject& subject, const Compatibility& compatibility) {
  const std::size_t m = term.text.size();
  if (m == 0) return true;
  if (term.wildcard) return wildcardOn(term, subject, compatibility);
  const std::size_t n = subject.size();
  if (term.whole) {
    if (n != m) return false;
    for (std::size_t i = 0; i < m; ++i)
      if (!unitMatches(term, i, subject[i], compatibility)) return false;
    return true;
  }
  if (m > n) return false;
  for (std::size_t start = 0; start + m <= n; ++start) {
    std::size_t i = 0;
    while (i < m && unitMatches(term, i, subject[start + i], compatibility)) ++i;
    if (i == m) return true;
  }
  return false;
}

// The row's full path as the catalog displays it, without building it.
TwoPieces pathOf(const Catalog& catalog, std::int32_t row) {
  TextView parent = catalog.parentUnits(catalog.parentIndex(row));
  if (auto nul = parent.find(u'\0'); nul != TextView::npos) return {parent.substr(0, nul), {}};
  TextView name = catalog.nameUnits(row);
  if (auto nul = name.find(u'\0'); nul != TextView::npos) name = name.substr(0, nul);
  return {parent, name};
}

// Whole-text equality with the term's folded or raw text.
bool equalsText(const Term& term, TextView subject, const Compatibility& compatibility) {
  if (subject.size() != term.text.size()) return false;
  for (std::size_t i = 0; i < subject.size(); ++i)
    if (!unitMatches(term, i, subject[i], compatibility)) return false;
  return true;
}

bool extensionMatches(const Term& term, TextView extension, const Compatibility& compatibility) {
  for (const Text& listed : term.extensions) {
    if (listed.size() != extension.size()) continue;
    std::size_t i = 0;
    if (term.sensitive) {
      while (i < listed.size() && listed[i] == extension[i]) ++i;
    } else {
      while (i < listed.size() && compatibility.fold(listed[i]) == compatibility.fold(extension[i])) ++i;
    }
    if (i == listed.size()) return true;
  }
  return false;
}

bool numberMatches(const Term& term, std::uint64_t value, bool folder) {
  if (term.unknown) {
    if (value != kUnknown64) return false;
    // Without real folder sizes a folder's unknown size says nothing about it.
    return !(term.kind == Kind::size && !term.sizeFolders && folder);
  }
  return value != kUnknown64 && term.low <= value && value <= term.high;
}

bool leafMatches(const Term& term, const Catalog& catalog, std::int32_t row, const Compatibility& compatibility) {
  switch (term.kind) {
    case Kind::true_:
      return true;
    case Kind::false_:
      return false;
    case Kind::text:
      return term.fullPath ? textOn(term, pathOf(catalog, row), compatibility)
                           : textOn(term, OnePiece{catalog.nameUnits(row)}, compatibility);
    case Kind::ext:
      return !catalog.isDirectory(row) && extensionMatches(term, catalog.extensionUnits(row), compatibility);
    case Kind::file:
      return !catalog.isDirectory(row);
    case Kind::folder:
      return catalog.isDirectory(row);
    case Kind::size:
      return numberMatches(term, catalog.rawSize(row), catalog.isDirectory(row));
    case Kind::modified:
      return numberMatches(term, catalog.rawModified(row), catalog.isDirectory(row));
    case Kind::created:
      return numberMatches(term, catalog.rawCreated(row), catalog.isDirectory(row));
    case Kind::allocated:
      return numberMatches(term, catalog.rawAllocated(row), catalog.isDirectory(row));
    case Kind::volume: {
      const Text* label = catalog.deviceLabel(row);
      return label != nullptr && equalsText(term, *label, compatibility);
    }
    case Kind::parent: {
      TextView parent = catalog.parentUnits(catalog.parentIndex(row));
      return equalsText(term, path_flavor::trimParent(catalog.pathFlavor(), parent), compatibility);
    }
    case Kind::and_:
    case Kind::or_:
    case Kind::not_:
      break;
  }
  return false;
}

struct Pending {
  const Term* term;
  std::size_t next;  // index of the next child to evaluate
};

}  // namespace

bool Query::wildcard(const Term& term, TextView subject, const Compatibility& compatibility) {
  return wildcardOn(term, OnePiece{subject}, compatibility);
}

bool Query::textMatches(const Term& term, TextView subject, const Compatibility& compatibility) {
  return textOn(term, OnePiece{subject}, compatibility);
}

bool Query::matches(const Term& root, const Catalog& catalog, std::int32_t row, const Compatibility& compatibility) {
  // Depth-first with short-circuit on an explicit stack: trees may be far
  // deeper than the thread's stack. The scratch stack is reused per thread.
  thread_local std::vector<Pending> stack;
  const std::size_t base = stack.size();
  const Term* term = &root;
  bool result = false;
  for (;;) {
    // Descend to the first leaf of `term`.
    for (;;) {
      if (term->kind == Kind::not_ || term->kind == Kind::and_ || term->kind == Kind::or_) {
        if (term->children.empty()) {
          result = term->kind != Kind::or_;  // an empty and holds; an empty or does not
          break;
        }
        stack.push_back({term, 1});
        term = term->children.front().get();
        continue;
      }
      result = leafMatches(*term, catalog, row, compatibility);
      break;
    }
    // Ascend until a composite needs another child.
    bool descend = false;
    while (stack.size() > base) {
      Pending& top = stack.back();
      const Term& parent = *top.term;
      if (parent.kind == Kind::not_) {
        result = !result;
      } else if (result == (parent.kind == Kind::and_) && top.next < parent.children.size()) {
        term = parent.children[top.next++].get();
        descend = true;
        break;
      }
      stack.pop_back();
    }
    if (!descend) return result;
  }
}

}  // namespace tarv
