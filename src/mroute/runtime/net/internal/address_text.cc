#include "mroute/runtime/net/internal/address_text.h"

#include <cstdio>

namespace Orvet::net_internal {
namespace {

// Parses colon-separated groups of 1..4 hex digits into out[0..]. The last
// group may be a dotted IPv4 address (two groups) when `v4Tail` is set.
// Returns the number of groups, or -1.
int parseGroups(std::string_view text, bool v4Tail, uint16_t* out, int room) {
  if (text.empty()) return 0;
  int n = 0;
  while (true) {
    size_t colon = text.find(':');
    std::string_view piece = text.substr(0, colon);
    bool last = colon == std::string_view::npos;
    if (last && v4Tail && piece.find('.') != std::string_view::npos) {
      auto v4 = parseIpv4(piece);
      if (!v4 || n + 2 > room) return -1;
      out[n++] = static_cast<uint16_t>(*v4 >> 16);
      out[n++] = static_cast<uint16_t>(*v4 & 0xffff);
      return n;
    }
    if (piece.empty() || piece.size() > 4 || n == room) return -1;
    uint16_t group = 0;
    for (char c : piece) {
      int d = hexDigit(c);
      if (d < 0) return -1;
      group = static_cast<uint16_t>(group << 4 | d);
    }
    out[n++] = group;
    if (last) return n;
    text.remove_prefix(colon + 1);
  }
}

}  // namespace

std::optional<uint32_t> parseDecimal(std::string_view text, uint32_t max) {
  if (text.empty() || text.size() > 10 || (text.size() > 1 && text[0] == '0')) return std::nullopt;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  if (v > max) return std::nullopt;
  return static_cast<uint32_t>(v);
}

std::optional<uint32_t> parseIpv4(std::string_view text) {
  uint32_t value = 0;
  for (int part = 0; part < 4; ++part) {
    size_t dot = text.find('.');
    if ((part < 3) == (dot == std::string_view::npos)) return std::nullopt;
    auto byte = parseDecimal(text.substr(0, dot), 255);
    if (!byte) return std::nullopt;
    value = value << 8 | *byte;
    if (part < 3) text.remove_prefix(dot + 1);
  }
  return value;
}

std::string formatIpv4(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", v >> 24, (v >> 16) & 0xff, (v >> 8) & 0xff, v & 0xff);
  return buf;
}

bool parseIpv6(std::string_view text, uint8_t out[16]) {
  uint16_t head[8] = {};
  uint16_t tail[8] = {};
  int nHead = 0;
  int nTail = 0;
  size_t gap = text.find("::");
  if (gap == std::string_view::npos) {
    nHead = parseGroups(text, true, head, 8);
    if (nHead != 8) return false;
  } else {
    std::string_view before = text.substr(0, gap);
    std::string_view after = text.substr(gap + 2);
    if (after.find("::") != std::string_view::npos) return false;
    nHead = parseGroups(before, false, head, 7);
    if (nHead < 0) return false;
    nTail = parseGroups(after, true, tail, 7 - nHead);
    if (nTail < 0) return false;
  }
  uint16_t groups[8] = {};
  for (int i = 0; i < nHead; ++i) groups[i] = head[i];
  for (int i = 0; i < nTail; ++i) groups[8 - nTail + i] = tail[i];
  for (int i = 0; i < 8; ++i) {
    out[2 * i] = static_cast<uint8_t>(groups[i] >> 8);
    out[2 * i + 1] = static_cast<uint8_t>(groups[i]);
  }
  return true;
}

std::string formatIpv6(const uint8_t b[16]) {
  uint16_t g[8];
  for (int i = 0; i < 8; ++i) g[i] = static_cast<uint16_t>(b[2 * i] << 8 | b[2 * i + 1]);
  // IPv4-mapped addresses keep their dotted tail.
  bool mapped = g[0] == 0 && g[1] == 0 && g[2] == 0 && g[3] == 0 && g[4] == 0 && g[5] == 0xffff;
  int groups = mapped ? 6 : 8;
  // The longest run of two or more zero groups is compressed; the first wins a tie.
  int bestStart = -1;
  int bestLen = 1;
  for (int i = 0; i < groups;) {
    if (g[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < groups && g[j] == 0) ++j;
    if (j - i > bestLen) {
      bestStart = i;
      bestLen = j - i;
    }
    i = j;
  }
  std::string out;
  char buf[8];
  for (int i = 0; i < groups; ++i) {
    if (i == bestStart) {
      out += "::";
      i += bestLen - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') out += ':';
    std::snprintf(buf, sizeof buf, "%x", g[i]);
    out += buf;
  }
  if (mapped) {
    if (out.back() != ':') out += ':';
    out += formatIpv4(static_cast<uint32_t>(g[6]) << 16 | g[7]);
  }
  return out;
}

}  // namespace Orvet::net_internal
