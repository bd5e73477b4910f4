#include "mroute/entity/kiv/text_form.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace Kiv {
namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return s;
}

[[noreturn]] void malformed(std::string_view what, std::string_view text) {
  throw RangeException("cannot read " + std::string(what) + " from '" + std::string(text) + "'");
}

}  // namespace

bool TextTraits<bool>::read(std::string_view text) {
  text = trim(text);
  if (text == "True" || text == "true" || text == "1") return true;
  if (text == "False" || text == "false" || text == "0") return false;
  malformed("a boolean", text);
}

namespace text_internal {

uint64_t readUnsigned(std::string_view text, uint64_t max) {
  text = trim(text);
  uint64_t v = 0;
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    base = 16;
  }
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, base);
  if (ec != std::errc() || end != text.data() + text.size()) malformed("an unsigned number", text);
  if (v > max) throw RangeException(std::string(text) + " > " + std::to_string(max) + " not allowed");
  return v;
}

int64_t readSigned(std::string_view text, int64_t min, int64_t max) {
  text = trim(text);
  int64_t v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size()) malformed("a number", text);
  if (v < min || v > max) throw RangeException(std::string(text) + " out of range");
  return v;
}

}  // namespace text_internal

void TextTraits<double>::write(std::ostream& os, double v) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  std::string_view text(buf, static_cast<size_t>(end - buf));
  os << text;
  // Keep a visible fraction so the text reads as a float, as 0.0 does.
  if (ec == std::errc() && std::isfinite(v) && text.find_first_of(".e") == std::string_view::npos) os << ".0";
}

double TextTraits<double>::read(std::string_view text) {
  text = trim(text);
  std::string copy(text);
  char* end = nullptr;
  double v = std::strtod(copy.c_str(), &end);
  if (copy.empty() || end != copy.c_str() + copy.size()) malformed("a number", text);
  return v;
}

void TextTraits<std::string>::write(std::ostream& os, const std::string& v) {
  os << '\'';
  for (char c : v) {
    if (c == '\'' || c == '\\') os << '\\';
    os << c;
  }
  os << '\'';
}

std::string TextTraits<std::string>::read(std::string_view text) {
  text = trim(text);
  if (text.size() < 2 || text.front() != '\'' || text.back() != '\'') malformed("a quoted string", text);
  std::string out;
  for (size_t i = 1; i + 1 < text.size(); ++i) {
    if (text[i] == '\\' && i + 2 < text.size()) ++i;
    out.push_back(text[i]);
  }
  return out;
}

ValueWriter::ValueWriter(std::ostream& os, std::string_view type) : os_(os) {
  os_ << "Value('" << type << "', ** {";
}

ValueWriter& ValueWriter::rawField(std::string_view name, std::string_view text) {
  separate(name);
  os_ << text;
  return *this;
}

void ValueWriter::separate(std::string_view name) {
  if (!first_) os_ << ", ";
  first_ = false;
  os_ << '\'' << name << "': ";
}

size_t valueTokenLength(std::string_view text) {
  int depth = 0;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (quoted) {
      if (c == '\\') {
        ++i;
      } else if (c == '\'') {
        quoted = false;
      }
      continue;
    }
    if (c == '\'') {
      quoted = true;
    } else if (c == '(' || c == '{' || c == '[') {
      ++depth;
    } else if (c == ')' || c == '}' || c == ']') {
      if (depth == 0) return i;
      --depth;
    } else if (c == ',' && depth == 0) {
      return i;
    }
  }
  return text.size();
}

ValueReader::ValueReader(std::string_view text, std::string_view type) : rest_(trim(text)) {
  std::string head = "Value('" + std::string(type) + "', ** {";
  if (rest_.substr(0, head.size()) != head) {
    throw DeserializationException(std::string(type), "expected \"" + head + "\"");
  }
  rest_.remove_prefix(head.size());
}

std::string_view ValueReader::next(std::string_view name) {
  std::string label = (first_ ? "'" : ", '") + std::string(name) + "': ";
  if (rest_.substr(0, label.size()) != label) {
    throw DeserializationException(std::string(name), "expected \"" + label + "\"");
  }
  first_ = false;
  rest_.remove_prefix(label.size());
  size_t len = valueTokenLength(rest_);
  std::string_view token = rest_.substr(0, len);
  rest_.remove_prefix(len);
  return token;
}

void ValueReader::end() {
  if (trim(rest_) != "})") throw DeserializationException("", "expected \"})\" at '" + std::string(rest_) + "'");
}

}  // namespace Kiv
