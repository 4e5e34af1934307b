// Query::describe: the compact rendering of a term tree used by tests and
// diagnostics.

#include <cstdio>
#include <vector>

#include "kernel/query/query.h"

namespace tarv {
namespace {

using Kind = Query::Kind;
using Term = Query::Term;

const char* kindName(Kind kind) {
  switch (kind) {
    case Kind::true_: return "true";
    case Kind::false_: return "false";
    case Kind::and_: return "and";
    case Kind::or_: return "or";
    case Kind::not_: return "not";
    case Kind::text: return "text";
    case Kind::ext: return "ext";
    case Kind::file: return "file";
    case Kind::folder: return "folder";
    case Kind::size: return "size";
    case Kind::modified: return "modified";
    case Kind::created: return "created";
    case Kind::allocated: return "allocated";
    case Kind::volume: return "volume";
    case Kind::parent: return "parent";
  }
  return "?";
}

// UTF-8 in double quotes; quote, backslash and control units escaped.
void appendQuoted(std::string& out, TextView units) {
  out += '"';
  for (char c : utf8(units)) {
    auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte == 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  out += '"';
}

void appendFlags(std::string& out, const Term& term) {
  if (term.sensitive) out += " case";
  if (term.fullPath) out += " path";
  if (term.whole) out += " whole";
  if (term.wildcard) out += " wild";
}

void appendLeaf(std::string& out, const Term& term) {
  switch (term.kind) {
    case Kind::true_:
    case Kind::false_:
    case Kind::file:
    case Kind::folder:
      out += kindName(term.kind);
      return;
    case Kind::text:
    case Kind::parent:
    case Kind::volume:
      out += '(';
      out += kindName(term.kind);
      out += ' ';
      appendQuoted(out, term.raw);
      if (term.text != term.raw) {
        out += ' ';
        appendQuoted(out, term.text);
      }
      appendFlags(out, term);
      out += ')';
      return;
    case Kind::ext:
      out += "(ext";
      for (const Text& extension : term.extensions) {
        out += ' ';
        appendQuoted(out, extension);
      }
      appendFlags(out, term);
      out += ')';
      return;
    case Kind::size:
    case Kind::modified:
    case Kind::created:
    case Kind::allocated:
      out += '(';
      out += kindName(term.kind);
      if (term.unknown) {
        out += " unknown";
      } else {
        out += ' ' + std::to_string(term.low) + ' ' + std::to_string(term.high);
      }
      if (term.sizeFolders) out += " folders";
      out += ')';
      return;
    case Kind::and_:
    case Kind::or_:
    case Kind::not_:
      return;
  }
}

}  // namespace

std::string Query::describe(const Term& root) {
  struct Item {
    const Term* term;  // nullptr: close the innermost open list
    bool space;        // write a space before the item
  };
  std::string out;
  std::vector<Item> stack{{&root, false}};
  while (!stack.empty()) {
    Item item = stack.back();
    stack.pop_back();
    if (item.term == nullptr) {
      out += ')';
      continue;
    }
    if (item.space) out += ' ';
    const Term& term = *item.term;
    if (term.kind != Kind::and_ && term.kind != Kind::or_ && term.kind != Kind::not_) {
      appendLeaf(out, term);
      continue;
    }
    out += '(';
    out += kindName(term.kind);
    stack.push_back({nullptr, false});
    for (auto it = term.children.rbegin(); it != term.children.rend(); ++it) stack.push_back({it->get(), true});
  }
  return out;
}

}  // namespace tarv
