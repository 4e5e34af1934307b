#include "kernel/query/query_parser.h"

#include <algorithm>
#include <deque>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kernel/catalog/compatibility.h"
#include "kernel/query/query_range.h"

namespace tarv {
namespace {

using Kind = Query::Kind;
using Modifier = Query::Modifier;
using Term = Query::Term;
using TermPtr = Query::TermPtr;

// What a function or modifier name stands for.
struct NameEntry {
  enum class Type { modifier, file, folder, ext, range, volume, parent, macro };
  Type type = Type::modifier;
  Modifier modifier = Modifier::matchCase;
  Kind kind = Kind::text;  // file, folder and range names
  bool isDate = false;     // range names
  TextView macroQuery;     // "ext:" followed by the macro's list
};

constexpr std::size_t kLongestName = 13;  // "wholefilename", "date-modified"

struct Macro {
  std::u16string_view name;
  std::u16string_view extensions;
};

constexpr Macro kMacros[] = {
    {u"audio",
     u"aac;ac3;aif;aifc;aiff;amr;ape;au;cda;dts;fla;flac;it;m1a;m2a;m3u;m4a;m4b;m4p;mid;midi;mka;mod;mp2;mp3;mpa;"
     u"ogg;opus;ra;rmi;s3m;snd;spx;tak;tta;voc;wav;weba;wma;wv;xm"},
    {u"video",
     u"3g2;3gp;3gpp;asf;avi;divx;f4v;flv;m2p;m2t;m2ts;m2v;m4v;mkv;mov;mp4;mpe;mpeg;mpg;mpv;mts;ogm;ogv;qt;rm;rmvb;"
     u"swf;ts;vob;webm;wmv"},
    {u"image",
     u"ani;arw;avif;bmp;cr2;crw;cur;dcm;dds;dib;djvu;dng;emf;eps;gif;heic;heif;ico;jfif;jpe;jpeg;jpg;nef;orf;pbm;"
     u"pcx;pef;pgm;png;pnm;ppm;psd;raf;raw;srw;svg;tga;tif;tiff;webp;wmf;xbm;xcf;xpm"},
    {u"pic",
     u"ani;arw;avif;bmp;cr2;crw;cur;dcm;dds;dib;djvu;dng;emf;eps;gif;heic;heif;ico;jfif;jpe;jpeg;jpg;nef;orf;pbm;"
     u"pcx;pef;pgm;png;pnm;ppm;psd;raf;raw;srw;svg;tga;tif;tiff;webp;wmf;xbm;xcf;xpm"},
    {u"doc",
     u"csv;doc;docm;docx;dot;dotm;dotx;epub;htm;html;ini;log;mobi;odp;ods;odt;pdf;pot;potm;potx;pps;ppsm;ppsx;ppt;"
     u"pptm;pptx;rtf;tex;txt;wpd;wps;xls;xlsb;xlsm;xlsx;xlt;xltm;xltx;xml"},
    {u"exe", u"bat;cmd;com;exe;msi;msp;scr"},
    {u"zip",
     u"7z;ace;arj;bz2;cab;gz;gzip;iso;lz;lzh;lzma;rar;tar;taz;tbz;tbz2;tgz;tlz;txz;tz;war;wim;xz;z;zip"},
};

// The modifier, function and macro names, built once per process (thread-safe
// static initialisation) and immutable afterwards. Keys view static storage.
const std::unordered_map<TextView, NameEntry>& names() {
  static const auto* table = [] {
    auto* map = new std::unordered_map<TextView, NameEntry>();
    auto modifier = [&](TextView name, Modifier m) {
      NameEntry e;
      e.type = NameEntry::Type::modifier;
      e.modifier = m;
      (*map)[name] = e;
    };
    modifier(u"case", Modifier::matchCase);
    modifier(u"nocase", Modifier::noCase);
    modifier(u"path", Modifier::path);
    modifier(u"nopath", Modifier::noPath);
    modifier(u"wfn", Modifier::wholeName);
    modifier(u"wholefilename", Modifier::wholeName);
    auto simple = [&](TextView name, NameEntry::Type type, Kind kind, bool isDate) {
      NameEntry e;
      e.type = type;
      e.kind = kind;
      e.isDate = isDate;
      (*map)[name] = e;
    };
    simple(u"file", NameEntry::Type::file, Kind::file, false);
    simple(u"folder", NameEntry::Type::folder, Kind::folder, false);
    simple(u"ext", NameEntry::Type::ext, Kind::ext, false);
    simple(u"size", NameEntry::Type::range, Kind::size, false);
    simple(u"size-on-disk", NameEntry::Type::range, Kind::allocated, false);
    for (TextView name : {u"dm", u"datemodified", u"date-modified"})
      simple(name, NameEntry::Type::range, Kind::modified, true);
    for (TextView name : {u"dc", u"datecreated", u"date-created"})
      simple(name, NameEntry::Type::range, Kind::created, true);
    simple(u"volume-label", NameEntry::Type::volume, Kind::volume, false);
    simple(u"parent", NameEntry::Type::parent, Kind::parent, false);
    static std::deque<Text> macroQueries;
    for (const Macro& macro : kMacros) {
      macroQueries.push_back(Text(u"ext:") + Text(macro.extensions));
      NameEntry e;
      e.type = NameEntry::Type::macro;
      e.macroQuery = macroQueries.back();
      (*map)[macro.name] = e;
    }
    return map;
  }();
  return *table;
}

// The entry of the name whose raw units are `name`, compared after folding.
const NameEntry* lookup(TextView name, const Compatibility& compatibility) {
  if (name.empty() || name.size() > kLongestName) return nullptr;
  Unit folded[kLongestName];
  for (std::size_t i = 0; i < name.size(); ++i) folded[i] = compatibility.fold(name[i]);
  const auto& table = names();
  auto it = table.find(TextView(folded, name.size()));
  return it == table.end() ? nullptr : &it->second;
}

// The segment before the final ':' of a token read so far (back to the
// previous ':' or the token's start), or nullopt when it does not end in ':'.
std::optional<TextView> colonSegment(TextView soFar) {
  if (soFar.empty() || soFar.back() != u':') return std::nullopt;
  TextView before = soFar.substr(0, soFar.size() - 1);
  auto previous = before.rfind(u':');
  return previous == TextView::npos ? before : before.substr(previous + 1);
}

// Modifier settings gathered for one term: -1 leaves a flag alone.
struct ModState {
  signed char sensitive = -1;
  signed char fullPath = -1;
  signed char whole = -1;

  bool empty() const { return sensitive < 0 && fullPath < 0 && whole < 0; }
  // Adds a modifier that was written to the right of those already present:
  // it is applied earlier, so it only fills flags still unset.
  void addRightOf(Modifier m) {
    switch (m) {
      case Modifier::matchCase: if (sensitive < 0) sensitive = 1; break;
      case Modifier::noCase: if (sensitive < 0) sensitive = 0; break;
      case Modifier::path: if (fullPath < 0) fullPath = 1; break;
      case Modifier::noPath: if (fullPath < 0) fullPath = 0; break;
      case Modifier::wholeName: if (whole < 0) whole = 1; break;
    }
  }
  // `outer` was applied after `inner`, so its flags win.
  static ModState over(const ModState& outer, const ModState& inner) {
    ModState r = inner;
    if (outer.sensitive >= 0) r.sensitive = outer.sensitive;
    if (outer.fullPath >= 0) r.fullPath = outer.fullPath;
    if (outer.whole >= 0) r.whole = outer.whole;
    return r;
  }
};

bool isComposite(Kind k) { return k == Kind::and_ || k == Kind::or_ || k == Kind::not_; }

// Applies modifier settings to one term that has no children.
void applyToLeaf(Term& term, const ModState& state, const Compatibility& compatibility) {
  const bool textual = term.kind == Kind::text || term.kind == Kind::parent;
  const bool caseKinds = textual || term.kind == Kind::ext || term.kind == Kind::volume;
  bool applied = false;
  if (state.sensitive >= 0 && caseKinds) {
    term.sensitive = state.sensitive == 1;
    applied = true;
  }
  if (textual) {
    if (state.fullPath >= 0) term.fullPath = state.fullPath == 1, applied = true;
    if (state.whole >= 0) term.whole = state.whole == 1, applied = true;
  }
  if (applied && (textual || term.kind == Kind::volume))
    term.text = term.sensitive ? term.raw : compatibility.fold(term.raw);
}

// Modifier settings pending on group terms, keyed by term address: an
// open-addressing table, since a long chain of modified groups can put a
// pending entry on every level and a node-based map costs far more.
class PendingTable {
 public:
  bool empty() const { return used_ == 0; }
  const ModState* find(const Term* term) const {
    if (slots_.empty()) return nullptr;
    for (std::size_t i = slotOf(term);; i = (i + 1) & (slots_.size() - 1)) {
      if (slots_[i].first == term) return &slots_[i].second;
      if (slots_[i].first == nullptr) return nullptr;
    }
  }
  // The entry of `term`, created with no settings when missing.
  ModState& at(const Term* term) {
    if ((used_ + 1) * 2 > slots_.size()) grow();
    std::size_t i = slotOf(term);
    while (slots_[i].first != nullptr && slots_[i].first != term) i = (i + 1) & (slots_.size() - 1);
    if (slots_[i].first == nullptr) {
      slots_[i].first = term;
      ++used_;
    }
    return slots_[i].second;
  }

 private:
  std::size_t slotOf(const Term* term) const {
    auto x = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(term));
    x ^= x >> 33;
    x *= 0xFF51AFD7ED558CCDull;
    x ^= x >> 33;
    return static_cast<std::size_t>(x) & (slots_.size() - 1);
  }
  void grow() {
    std::vector<std::pair<const Term*, ModState>> old(std::max<std::size_t>(64, slots_.size() * 2));
    old.swap(slots_);
    used_ = 0;
    for (const auto& [term, mods] : old)
      if (term != nullptr) at(term) = mods;
  }

  std::vector<std::pair<const Term*, ModState>> slots_;
  std::size_t used_ = 0;
};

}  // namespace

bool Query::Parser::isWhitespace(Unit u) noexcept {
  return (u >= 0x09 && u <= 0x0D) || (u >= 0x1C && u <= 0x20) || u == 0x1680 || (u >= 0x2000 && u <= 0x2006) ||
         (u >= 0x2008 && u <= 0x200A) || u == 0x2028 || u == 0x2029 || u == 0x205F || u == 0x3000;
}

std::optional<Query::Modifier> Query::Parser::modifierNamed(TextView folded) {
  const auto& table = names();
  auto it = table.find(folded);
  if (it == table.end() || it->second.type != NameEntry::Type::modifier) return std::nullopt;
  return it->second.modifier;
}

// The grammar on an explicit stack. Each grammar level that is under way is a
// frame; a finished sub-result is "delivered" to the frame below it. Nested
// values (file:/folder: sub-queries, macro expansions) are parsed as contexts
// of their own, pushed and popped like frames, so nothing recurses.
//
// Modifiers that reach a group are recorded as pending on the group's term
// and resolved in one top-down pass at the end, where the outermost setting
// of each flag wins; applying them eagerly would cost quadratic time on
// inputs such as case:!case:!case:!... .
class Query::Parser::Machine {
 public:
  explicit Machine(Parser& parser) : parser_(parser), compatibility_(parser.compatibility) {}

  TermPtr run(Level level);

  struct Token {
    TextView units;
    bool quoteFree = true;
  };
  struct Context {
    TextView input;
    std::size_t pos = 0;
    // The input is the value of a token read without quotes: read from its
    // start it is one token, so past the first ':' and the unit after it the
    // rest of any token read inside it runs to the end of the input.
    bool clean = false;
  };
  Token readToken(Context& context);

 private:
  enum class Mode { startAnd, startOr, startUnary, deliver };
  enum class FrameKind { andList, orList, negate, group, modifiers, nested };
  struct Frame {
    FrameKind kind;
    TermPtr accumulated;
    ModState mods;
    TermPtr head;  // nested file:/folder: value: the file or folder term
  };

  Mode unary(TermPtr& value);
  Mode build(const Token& token, TermPtr& value);
  Mode deliver(TermPtr& value);
  void append(TermPtr& accumulated, TermPtr value, Kind kind);
  void applyPending(Term& term, const ModState& mods);
  void flushPending(Term& term);
  void resolve(Term& root);
  TermPtr leaf(Kind kind, TextView units, const ModState& mods, bool whole);
  void skipWhitespace(Context& c) {
    while (c.pos < c.input.size() && isWhitespace(c.input[c.pos])) ++c.pos;
  }
  bool endsToken(TextView soFar, Unit u) const;

  Parser& parser_;
  const Compatibility& compatibility_;
  std::vector<Context> contexts_;
  std::vector<Frame> frames_;
  std::deque<Text> buffers_;  // tokens with quotes removed; stable addresses
  PendingTable pending_;
};

bool Query::Parser::Machine::endsToken(TextView soFar, Unit u) const {
  if (isWhitespace(u) || u == u'|') return true;
  if (u == u'!') {
    auto segment = colonSegment(soFar);
    if (!segment) return false;
    const NameEntry* e = lookup(*segment, compatibility_);
    return e != nullptr && e->type == NameEntry::Type::modifier;
  }
  if (u == u'<' || u == u'>') {
    // Kept only directly after "size:", "dm:" and the other range names.
    auto segment = colonSegment(soFar);
    if (!segment) return true;
    const NameEntry* e = lookup(*segment, compatibility_);
    return e == nullptr || e->type != NameEntry::Type::range;
  }
  return false;
}

Query::Parser::Machine::Token Query::Parser::Machine::readToken(Context& context) {
  const TextView in = context.input;
  const std::size_t start = context.pos;
  std::size_t j = start;
  std::size_t firstColon = TextView::npos;
  // Without quotes the token is a view of the input.
  for (; j < in.size(); ++j) {
    const Unit u = in[j];
    if (u == u'"') break;
    if (context.clean && firstColon != TextView::npos && j >= firstColon + 2) {
      j = in.size();
      break;
    }
    if (endsToken(in.substr(start, j - start), u)) break;
    if (u == u':' && firstColon == TextView::npos) firstColon = j;
  }
  if (j >= in.size() || in[j] != u'"') {
    context.pos = j;
    return {in.substr(start, j - start), true};
  }
  // A quote: continue into a buffer of its own, quotes removed.
  Text& buffer = buffers_.emplace_back(in.substr(start, j - start));
  bool quoted = false;
  for (; j < in.size(); ++j) {
    const Unit u = in[j];
    if (u == u'"') {
      quoted = !quoted;
      continue;
    }
    if (!quoted && endsToken(buffer, u)) break;
    buffer.push_back(u);
  }
  context.pos = j;
  return {buffer, false};
}

TermPtr Query::Parser::Machine::run(Level level) {
  contexts_.push_back({parser_.input, parser_.position, false});
  Mode mode = level == Level::andLevel ? Mode::startAnd : level == Level::orLevel ? Mode::startOr : Mode::startUnary;
  TermPtr value;
  for (;;) {
    if (mode == Mode::startAnd) {
      frames_.push_back({FrameKind::andList, nullptr, {}, nullptr});
      mode = Mode::startOr;
    } else if (mode == Mode::startOr) {
      frames_.push_back({FrameKind::orList, nullptr, {}, nullptr});
      mode = Mode::startUnary;
    } else if (mode == Mode::startUnary) {
      mode = unary(value);
    } else if (frames_.empty()) {
      break;
    } else {
      mode = deliver(value);
    }
  }
  parser_.position = contexts_.front().pos;
  resolve(*value);
  return value;
}

Query::Parser::Machine::Mode Query::Parser::Machine::unary(TermPtr& value) {
  Context& c = contexts_.back();
  skipWhitespace(c);
  if (c.pos >= c.input.size() || c.input[c.pos] == u'>') {
    value = Term::make(Kind::true_);
    return Mode::deliver;
  }
  if (c.input[c.pos] == u'<') {
    ++c.pos;
    frames_.push_back({FrameKind::group, nullptr, {}, nullptr});
    return Mode::startAnd;
  }
  if (c.input[c.pos] == u'!') {
    ++c.pos;
    frames_.push_back({FrameKind::negate, nullptr, {}, nullptr});
    return Mode::startUnary;
  }
  const std::size_t start = c.pos;
  Token token = readToken(c);
  if (token.units.empty()) {
    // Nothing read at a "|": step over it. An empty pair of quotes lands here too.
    if (c.pos == start) ++c.pos;
    value = Term::make(Kind::true_);
    return Mode::deliver;
  }
  return build(token, value);
}

Query::Parser::Machine::Mode Query::Parser::Machine::build(const Token& token, TermPtr& value) {
  ModState mods;
  TextView segment = token.units;
  for (;;) {
    const auto colon = segment.find(u':');
    if (colon == TextView::npos) {
      value = leaf(Kind::text, segment, mods, false);
      return Mode::deliver;
    }
    const TextView rest = segment.substr(colon + 1);
    const NameEntry* entry = lookup(segment.substr(0, colon), compatibility_);
    if (entry == nullptr) {
      value = leaf(Kind::text, segment, mods, false);
      return Mode::deliver;
    }
    switch (entry->type) {
      case NameEntry::Type::modifier: {
        mods.addRightOf(entry->modifier);
        if (!rest.empty()) {
          segment = rest;
          continue;
        }
        Context& c = contexts_.back();
        skipWhitespace(c);
        if (c.pos < c.input.size() && (c.input[c.pos] == u'!' || c.input[c.pos] == u'<')) {
          frames_.push_back({FrameKind::modifiers, nullptr, mods, nullptr});
          return Mode::startUnary;
        }
        // The modifiers reach nothing: an empty text, which matches everything.
        value = leaf(Kind::text, TextView(), ModState{}, false);
        return Mode::deliver;
      }
      case NameEntry::Type::file:
      case NameEntry::Type::folder: {
        TermPtr head = Term::make(entry->kind);
        if (rest.empty()) {
          value = head;
          return Mode::deliver;
        }
        frames_.push_back({FrameKind::nested, nullptr, mods, head});
        contexts_.push_back({rest, 0, token.quoteFree});
        return Mode::startAnd;
      }
      case NameEntry::Type::ext: {
        value = Term::make(Kind::ext);
        value->text = Text(rest);
        std::size_t from = 0;
        for (;;) {
          auto semicolon = rest.find(u';', from);
          if (semicolon == TextView::npos) {
            // One trailing empty entry (after a final ";") is dropped, unless it is the only one.
            if (from < rest.size() || value->extensions.empty()) value->extensions.emplace_back(rest.substr(from));
            break;
          }
          value->extensions.emplace_back(rest.substr(from, semicolon - from));
          from = semicolon + 1;
        }
        applyToLeaf(*value, mods, compatibility_);
        return Mode::deliver;
      }
      case NameEntry::Type::range:
        // Modifiers do not act on sizes and dates.
        value = Term::make(entry->kind);
        Range::parse(*value, rest, entry->isDate, compatibility_, parser_.currentMoment());
        return Mode::deliver;
      case NameEntry::Type::volume:
        value = Term::make(Kind::volume);
        value->raw = Text(rest);
        value->text = compatibility_.fold(rest);
        applyToLeaf(*value, mods, compatibility_);
        return Mode::deliver;
      case NameEntry::Type::parent:
        value = leaf(Kind::parent, path_flavor::trimParent(parser_.pathFlavor, rest), mods, true);
        return Mode::deliver;
      case NameEntry::Type::macro:
        if (!rest.empty()) {
          // "audio:beatles" is the literal text audio:beatles.
          value = leaf(Kind::text, segment, mods, false);
          return Mode::deliver;
        }
        frames_.push_back({FrameKind::nested, nullptr, mods, nullptr});
        contexts_.push_back({entry->macroQuery, 0, false});
        return Mode::startAnd;
    }
  }
}

TermPtr Query::Parser::Machine::leaf(Kind kind, TextView units, const ModState& mods, bool whole) {
  TermPtr t = Term::make(kind);
  t->raw = Text(units);
  t->text = t->raw;
  t->whole = whole;
  if (mods.sensitive >= 0) t->sensitive = mods.sensitive == 1;
  if (mods.fullPath >= 0) t->fullPath = mods.fullPath == 1;
  if (mods.whole >= 0) t->whole = mods.whole == 1;
  // A separator (or a bare drive such as C:) makes it a path search, whatever the modifiers said.
  if (path_flavor::lastSeparator(parser_.pathFlavor, units) >= 0 ||
      (parser_.pathFlavor == PathFlavor::windows && units.size() == 2 && units[1] == u':'))
    t->fullPath = true;
  t->wildcard = units.find_first_of(u"*?") != TextView::npos;
  if (!t->sensitive) t->text = compatibility_.fold(units);
  return t;
}

Query::Parser::Machine::Mode Query::Parser::Machine::deliver(TermPtr& value) {
  Frame& frame = frames_.back();
  Context& c = contexts_.back();
  switch (frame.kind) {
    case FrameKind::negate: {
      TermPtr negation = Term::make(Kind::not_);
      negation->children.push_back(std::move(value));
      value = std::move(negation);
      frames_.pop_back();
      return Mode::deliver;
    }
    case FrameKind::group:
      if (c.pos < c.input.size() && c.input[c.pos] == u'>') ++c.pos;
      frames_.pop_back();
      return Mode::deliver;
    case FrameKind::modifiers:
      applyPending(*value, frame.mods);
      frames_.pop_back();
      return Mode::deliver;
    case FrameKind::nested: {
      contexts_.pop_back();
      if (frame.head) {
        TermPtr both = Term::make(Kind::and_);
        both->children = {frame.head, std::move(value)};
        value = std::move(both);
      }
      applyPending(*value, frame.mods);
      frames_.pop_back();
      return Mode::deliver;
    }
    case FrameKind::orList:
      append(frame.accumulated, std::move(value), Kind::or_);
      skipWhitespace(c);
      if (c.pos < c.input.size() && c.input[c.pos] == u'|') {
        ++c.pos;
        return Mode::startUnary;
      }
      value = std::move(frame.accumulated);
      frames_.pop_back();
      return Mode::deliver;
    case FrameKind::andList:
      append(frame.accumulated, std::move(value), Kind::and_);
      skipWhitespace(c);
      if (c.pos >= c.input.size() || c.input[c.pos] == u'>') {
        value = std::move(frame.accumulated);
        frames_.pop_back();
        return Mode::deliver;
      }
      return Mode::startOr;
  }
  return Mode::deliver;
}

void Query::Parser::Machine::append(TermPtr& accumulated, TermPtr value, Kind kind) {
  if (!accumulated) {
    accumulated = std::move(value);
    return;
  }
  if (accumulated->kind == kind) {
    // Flattening into a term that modifiers reached: they must not reach the newcomer.
    flushPending(*accumulated);
  } else {
    TermPtr wrapper = Term::make(kind);
    wrapper->children.push_back(std::move(accumulated));
    accumulated = std::move(wrapper);
  }
  accumulated->children.push_back(std::move(value));
}

void Query::Parser::Machine::applyPending(Term& term, const ModState& mods) {
  if (mods.empty()) return;
  if (!isComposite(term.kind)) {
    applyToLeaf(term, mods, compatibility_);
    return;
  }
  ModState& entry = pending_.at(&term);
  entry = ModState::over(mods, entry);
}

void Query::Parser::Machine::flushPending(Term& term) {
  const ModState* entry = pending_.find(&term);
  if (entry == nullptr || entry->empty()) return;
  const ModState mods = *entry;
  pending_.at(&term) = ModState{};  // applied below; nothing stays pending here
  for (const TermPtr& child : term.children) applyPending(*child, mods);
}

void Query::Parser::Machine::resolve(Term& root) {
  if (pending_.empty()) return;
  std::vector<std::pair<Term*, ModState>> stack{{&root, ModState{}}};
  while (!stack.empty()) {
    auto [term, inherited] = stack.back();
    stack.pop_back();
    ModState state = inherited;
    if (const ModState* own = pending_.find(term)) state = ModState::over(inherited, *own);
    if (!isComposite(term->kind)) {
      if (!state.empty()) applyToLeaf(*term, state, compatibility_);
      continue;
    }
    for (const TermPtr& child : term->children) stack.emplace_back(child.get(), state);
  }
  pending_ = PendingTable();
}

Query::Parser::Parser(TextView query, const Compatibility& compatibility_, PathFlavor pathFlavor_)
    : input(query), compatibility(compatibility_), pathFlavor(pathFlavor_) {}

TermPtr Query::Parser::run(Level level) {
  position = std::min(position, input.size());
  Machine machine(*this);
  return machine.run(level);
}

TermPtr Query::Parser::parseAnd() { return run(Level::andLevel); }
TermPtr Query::Parser::parseOr() { return run(Level::orLevel); }
TermPtr Query::Parser::parseUnary() { return run(Level::unaryLevel); }

Text Query::Parser::readToken() {
  position = std::min(position, input.size());
  Machine machine(*this);
  Machine::Context context{input, position, false};
  Text token(machine.readToken(context).units);
  position = context.pos;
  return token;
}

void Query::Parser::modify(Term& term, Modifier modifier) const {
  ModState mods;
  mods.addRightOf(modifier);
  std::vector<Term*> stack{&term};
  while (!stack.empty()) {
    Term* t = stack.back();
    stack.pop_back();
    if (isComposite(t->kind)) {
      for (const TermPtr& child : t->children) stack.push_back(child.get());
    } else {
      applyToLeaf(*t, mods, compatibility);
    }
  }
}

const Query::Moment& Query::Parser::currentMoment() {
  if (!moment) moment = Moment::now();
  return *moment;
}

TermPtr Query::parse(TextView query, const Compatibility& compatibility, PathFlavor pathFlavor,
                     std::optional<Moment> moment) {
  Parser parser(query, compatibility, pathFlavor);
  parser.moment = moment;
  return parser.parseAnd();
}

}  // namespace tarv
