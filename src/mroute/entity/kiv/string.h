// The framework's string types: Kiv::Name (entity and member names),
// Kiv::String (general text) and Kiv::String8 (8-bit text such as literals
// and client names). They are distinct types so that overloads can tell a
// name from a number or from another kind of text; each prints bare with
// operator<< and single-quoted in the value text form.
//
// Thread-safety: plain values; the usual rules of std::string apply.
#pragma once

#include <compare>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "mroute/entity/kiv/text_form.h"

namespace Kiv {

template <class Tag>
class BasicString {
 public:
  BasicString() = default;
  BasicString(const char* s) : s_(s) {}
  BasicString(std::string s) : s_(std::move(s)) {}
  BasicString(std::string_view s) : s_(s) {}

  const std::string& stdString() const { return s_; }
  operator std::string_view() const { return s_; }
  const char* c_str() const { return s_.c_str(); }
  size_t size() const { return s_.size(); }
  bool empty() const { return s_.empty(); }

  friend bool operator==(const BasicString&, const BasicString&) = default;
  friend std::strong_ordering operator<=>(const BasicString&, const BasicString&) = default;
  friend std::ostream& operator<<(std::ostream& os, const BasicString& s) { return os << s.s_; }

 private:
  std::string s_;
};

struct NameTag {};
struct StringTag {};
struct String8Tag {};
using Name = BasicString<NameTag>;
using String = BasicString<StringTag>;
using String8 = BasicString<String8Tag>;

// Single-quoted in the value text form, like std::string.
template <class Tag>
struct TextTraits<BasicString<Tag>> {
  static void write(std::ostream& os, const BasicString<Tag>& v) { TextTraits<std::string>::write(os, v.stdString()); }
  static BasicString<Tag> read(std::string_view text) { return TextTraits<std::string>::read(text); }
};

}  // namespace Kiv

template <class Tag>
struct std::hash<Kiv::BasicString<Tag>> {
  size_t operator()(const Kiv::BasicString<Tag>& s) const { return std::hash<std::string>()(s.stdString()); }
};
