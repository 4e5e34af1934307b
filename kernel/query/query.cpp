#include "kernel/query/query.h"

#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"

namespace tarv {

Query::Term::~Term() {
  // Unlink the subtree iteratively: a chain of a million `not` terms must not
  // become a million nested destructor calls. A child still shared elsewhere
  // is only released; a child owned here gives up its children first.
  if (children.empty()) return;
  std::vector<TermPtr> pending = std::move(children);
  while (!pending.empty()) {
    TermPtr term = std::move(pending.back());
    pending.pop_back();
    if (term && term.use_count() == 1) {
      for (TermPtr& child : term->children) pending.push_back(std::move(child));
      term->children.clear();
    }
  }
}

Query::Query(std::shared_ptr<const Catalog> catalog, std::shared_ptr<const Compatibility> compatibility,
             std::shared_ptr<const SearchIndex> index, TermPtr root)
    : catalog_(std::move(catalog)),
      compatibility_(std::move(compatibility)),
      index_(std::move(index)),
      root_(std::move(root)) {}

bool Query::matches(std::int32_t row) const { return matches(*root_, *catalog_, row, *compatibility_); }

void Query::markSizeSemantics(Term& root, bool directorySizes) {
  std::vector<Term*> stack{&root};
  while (!stack.empty()) {
    Term* term = stack.back();
    stack.pop_back();
    term->sizeFolders = directorySizes;
    for (const TermPtr& child : term->children) stack.push_back(child.get());
  }
}

}  // namespace tarv
