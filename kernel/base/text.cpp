#include "kernel/base/text.h"

#include <cstdint>

namespace tarv {
namespace {

// Length of the well-formed UTF-8 sequence at `p`, or 0 when it is ill-formed.
// The checks follow the Unicode table of well-formed byte sequences.
size_t sequenceLength(const unsigned char* p, size_t available, char32_t& out) {
  unsigned char b0 = p[0];
  if (b0 < 0x80) {
    out = b0;
    return 1;
  }
  auto cont = [&](size_t i, unsigned char lo = 0x80, unsigned char hi = 0xBF) {
    return i < available && p[i] >= lo && p[i] <= hi;
  };
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    if (!cont(1)) return 0;
    out = (char32_t(b0 & 0x1F) << 6) | (p[1] & 0x3F);
    return 2;
  }
  if (b0 >= 0xE0 && b0 <= 0xEF) {
    unsigned char lo = b0 == 0xE0 ? 0xA0 : 0x80;
    unsigned char hi = b0 == 0xED ? 0x9F : 0xBF;
    if (!cont(1, lo, hi) || !cont(2)) return 0;
    out = (char32_t(b0 & 0x0F) << 12) | (char32_t(p[1] & 0x3F) << 6) | (p[2] & 0x3F);
    return 3;
  }
  if (b0 >= 0xF0 && b0 <= 0xF4) {
    unsigned char lo = b0 == 0xF0 ? 0x90 : 0x80;
    unsigned char hi = b0 == 0xF4 ? 0x8F : 0xBF;
    if (!cont(1, lo, hi) || !cont(2) || !cont(3)) return 0;
    out = (char32_t(b0 & 0x07) << 18) | (char32_t(p[1] & 0x3F) << 12) | (char32_t(p[2] & 0x3F) << 6) |
          (p[3] & 0x3F);
    return 4;
  }
  return 0;
}

// Length of the maximal ill-formed subpart at `p` (at least 1), so that
// repair emits one U+FFFD per subpart as the Unicode standard recommends.
size_t illFormedLength(const unsigned char* p, size_t available) {
  unsigned char b0 = p[0];
  size_t need = 0;
  unsigned char lo = 0x80, hi = 0xBF;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    need = 1;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    need = 2;
    if (b0 == 0xE0) lo = 0xA0;
    if (b0 == 0xED) hi = 0x9F;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    need = 3;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;
  } else {
    return 1;
  }
  size_t i = 1;
  for (; i <= need && i < available; ++i) {
    unsigned char l = i == 1 ? lo : 0x80, h = i == 1 ? hi : 0xBF;
    if (p[i] < l || p[i] > h) break;
  }
  return i;
}

void append(Text& out, char32_t c) {
  if (c < 0x10000) {
    out.push_back(static_cast<Unit>(c));
  } else {
    c -= 0x10000;
    out.push_back(static_cast<Unit>(0xD800 + (c >> 10)));
    out.push_back(static_cast<Unit>(0xDC00 + (c & 0x3FF)));
  }
}

void append(std::string& out, char32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

}  // namespace

Text utf16(std::string_view utf8) {
  Text out;
  out.reserve(utf8.size());
  auto p = reinterpret_cast<const unsigned char*>(utf8.data());
  size_t n = utf8.size();
  size_t i = 0;
  while (i < n) {
    if (p[i] < 0x80) {
      out.push_back(p[i++]);
      continue;
    }
    char32_t c = 0;
    size_t len = sequenceLength(p + i, n - i, c);
    if (len == 0) {
      out.push_back(u'\uFFFD');
      i += illFormedLength(p + i, n - i);
    } else {
      append(out, c);
      i += len;
    }
  }
  return out;
}

std::string utf8(TextView units) {
  std::string out;
  out.reserve(units.size());
  for (size_t i = 0; i < units.size(); ++i) {
    char32_t u = units[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
      char32_t c = 0x10000 + ((u - 0xD800) << 10) + (char32_t(units[i + 1]) - 0xDC00);
      append(out, c);
      ++i;
    } else if (u >= 0xD800 && u <= 0xDFFF) {
      append(out, 0xFFFD);
    } else {
      append(out, u);
    }
  }
  return out;
}

bool isValidUtf8(std::string_view bytes) {
  auto p = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t n = bytes.size();
  for (size_t i = 0; i < n;) {
    if (p[i] < 0x80) {
      ++i;
      continue;
    }
    char32_t c;
    size_t len = sequenceLength(p + i, n - i, c);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

bool isAscii(TextView units) {
  for (Unit u : units)
    if (u >= 0x80) return false;
  return true;
}

}  // namespace tarv
