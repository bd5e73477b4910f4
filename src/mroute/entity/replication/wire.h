// The wire encoding of the attribute log, version 1. Every number is in
// network byte order (big-endian). A connection carries records, each framed
//
//   u32 length        bytes that follow (type and body); 1 .. kMaxRecord
//   u8  type          RecordType below
//   ... body
//
// Bodies (do not renumber the types, do not reorder fields; a change of
// layout raises kWireVersion):
//
//   hello       u32 magic 'KIVL', u16 version, u8 sync mode, u64 incarnation
//   attr        u32 entity, i32 attribute id, value
//   member      u32 entity, i32 collection id, key, u8 present, value if present
//               (present 0 is the deletion of the key)
//   transaction u32 entity, i32 collection id, u8 marker (0 begin, 2 end)
//   orphan      u32 entity, then sections, each u8 number, u32 length, bytes:
//                 1  the entity's qualified type name (string)
//                 3  identity: u32 parent entity (0 for the root),
//                    i32 collection id in the parent, key
//                 4  attribute values: u32 count, then per attribute
//                    i32 id and value, or for a collection i32 id, u32 members
//                    and per member key, u8 1 and value (children: no value)
//   bookmark    u32 entity, i32 collection id, key: the last member of the
//               collection sent whole so far
//   answer      u8 0 stop / 1 continue (reader to writer: flow control)
//   synced      (empty) everything the writer had has been sent
//
// Values: bool and u8 one byte; integers their width; double its IEEE bits
// as u64; enumerations u32; strings and names u32 length and bytes; any other
// value type its text form as a string. "entity" numbers are handles that the
// orphan record introduces, unique within one connection.
//
// A reader decodes a whole record before it applies any of it; a short or
// malformed record throws WireError, and the connection is dropped.
//
// Thread-safety: value types.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "mroute/entity/kiv/enumeration.h"
#include "mroute/entity/kiv/string.h"
#include "mroute/entity/kiv/text_form.h"

namespace Kiv::NboAttrLog {

inline constexpr uint32_t kWireMagic = 0x4b49564c;  // "KIVL"
inline constexpr uint16_t kWireVersion = 1;
inline constexpr uint32_t kMaxRecord = 1u << 24;     // a longer frame is malformed

enum class RecordType : uint8_t {  // do not renumber
  hello = 1,
  attr = 2,
  member = 3,
  transaction = 4,
  orphan = 5,
  bookmark = 6,
  answer = 7,
  synced = 8,
};
inline constexpr uint8_t kLastRecordType = 8;

enum class OrphanSection : uint8_t { typeName = 1, identity = 3, values = 4 };  // do not renumber

// A record that cannot be read: what() says which field and why.
class WireError : public std::runtime_error {
 public:
  explicit WireError(const std::string& text) : std::runtime_error(text) {}
};

class WireWriter {
 public:
  explicit WireWriter(std::string& out) : out_(out) {}
  void u8(uint8_t v) { out_.push_back(static_cast<char>(v)); }
  void u16(uint16_t v) { be(v); }
  void u32(uint32_t v) { be(v); }
  void u64(uint64_t v) { be(v); }
  void i32(int32_t v) { be(static_cast<uint32_t>(v)); }
  void bytes(std::string_view s) {
    u32(static_cast<uint32_t>(s.size()));
    out_.append(s);
  }
  // Opens a frame of the given type; close() fills in its length.
  size_t open(RecordType t) {
    const size_t at = out_.size();
    u32(0);
    u8(static_cast<uint8_t>(t));
    return at;
  }
  void close(size_t at) {
    const uint32_t len = static_cast<uint32_t>(out_.size() - at - 4);
    for (int i = 0; i < 4; ++i) out_[at + i] = static_cast<char>(len >> (24 - 8 * i));
  }
  size_t size() const { return out_.size(); }
  std::string& buffer() { return out_; }

 private:
  template <class U>
  void be(U v) {
    char b[sizeof(U)];
    for (size_t i = 0; i < sizeof(U); ++i) b[i] = static_cast<char>(v >> (8 * (sizeof(U) - 1 - i)));
    out_.append(b, sizeof(U));
  }
  std::string& out_;
};

// Reads a record body with bounds checks; every read past the end throws.
class WireReader {
 public:
  explicit WireReader(std::string_view in) : in_(in) {}
  uint8_t u8() { return static_cast<uint8_t>(take(1)[0]); }
  uint16_t u16() { return be<uint16_t>(); }
  uint32_t u32() { return be<uint32_t>(); }
  uint64_t u64() { return be<uint64_t>(); }
  int32_t i32() { return static_cast<int32_t>(be<uint32_t>()); }
  std::string_view bytes() { return take(u32()); }
  std::string_view take(size_t n) {
    if (n > in_.size()) {
      throw WireError("truncated: " + std::to_string(n) + " bytes wanted, " + std::to_string(in_.size()) + " left");
    }
    std::string_view s = in_.substr(0, n);
    in_.remove_prefix(n);
    return s;
  }
  size_t left() const { return in_.size(); }
  bool done() const { return in_.empty(); }
  // REQUIRES the whole body consumed: trailing bytes are malformed.
  void end() const {
    if (!in_.empty()) throw WireError(std::to_string(in_.size()) + " trailing bytes");
  }

 private:
  template <class U>
  U be() {
    std::string_view s = take(sizeof(U));
    U v = 0;
    for (char c : s) v = static_cast<U>((v << 8) | static_cast<uint8_t>(c));
    return v;
  }
  std::string_view in_;
};

// How one C++ type travels: write(w, v) and read(r).
template <class T, class = void>
struct Wire {
  // Value types travel as their text form.
  static void write(WireWriter& w, const T& v) { w.bytes(textOf(v)); }
  static T read(WireReader& r) {
    std::string_view text = r.bytes();
    try {
      return TextTraits<T>::read(text);
    } catch (const std::exception& e) {
      throw WireError(std::string("bad value text '") + std::string(text) + "': " + e.what());
    }
  }
};

template <>
struct Wire<bool> {
  static void write(WireWriter& w, bool v) { w.u8(v ? 1 : 0); }
  static bool read(WireReader& r) {
    const uint8_t b = r.u8();
    if (b > 1) throw WireError("bool byte " + std::to_string(b));
    return b == 1;
  }
};

template <class T>
struct Wire<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
  using U = std::make_unsigned_t<T>;
  static void write(WireWriter& w, T v) {
    const U u = static_cast<U>(v);
    if constexpr (sizeof(U) == 1) w.u8(u);
    if constexpr (sizeof(U) == 2) w.u16(u);
    if constexpr (sizeof(U) == 4) w.u32(u);
    if constexpr (sizeof(U) == 8) w.u64(u);
  }
  static T read(WireReader& r) {
    if constexpr (sizeof(U) == 1) return static_cast<T>(r.u8());
    if constexpr (sizeof(U) == 2) return static_cast<T>(r.u16());
    if constexpr (sizeof(U) == 4) return static_cast<T>(r.u32());
    if constexpr (sizeof(U) == 8) return static_cast<T>(r.u64());
  }
};

template <>
struct Wire<double> {
  static void write(WireWriter& w, double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    w.u64(bits);
  }
  static double read(WireReader& r) {
    const uint64_t bits = r.u64();
    double v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
  }
};

template <class T>
struct Wire<T, std::enable_if_t<std::is_enum_v<T>>> {
  static void write(WireWriter& w, T v) { w.u32(static_cast<uint32_t>(v)); }
  static T read(WireReader& r) {
    const uint32_t v = r.u32();
    if constexpr (requires { EnumInfo<T>::type(); }) {
      if (EnumInfo<T>::type().literal(v) == nullptr) throw WireError("no literal of value " + std::to_string(v));
    }
    return static_cast<T>(v);
  }
};

template <>
struct Wire<std::string> {
  static void write(WireWriter& w, const std::string& v) { w.bytes(v); }
  static std::string read(WireReader& r) { return std::string(r.bytes()); }
};

template <class Tag>
struct Wire<BasicString<Tag>> {
  static void write(WireWriter& w, const BasicString<Tag>& v) { w.bytes(v.stdString()); }
  static BasicString<Tag> read(WireReader& r) { return BasicString<Tag>(r.bytes()); }
};

// The encoded bytes of a value (collection keys are kept this way).
template <class T>
std::string wireBytes(const T& v) {
  std::string s;
  WireWriter w(s);
  Wire<T>::write(w, v);
  return s;
}

// Decodes exactly one T from `bytes`.
template <class T>
T fromWireBytes(std::string_view bytes) {
  WireReader r(bytes);
  T v = Wire<T>::read(r);
  r.end();
  return v;
}

const char* recordTypeName(RecordType t);

}  // namespace Kiv::NboAttrLog
