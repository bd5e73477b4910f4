// How a surveyor shows the values of a table whose type it learns only
// from the table's files: a registry of stored value types by the name the
// slot file records (valueType) and their size.
//
// Every table type registers itself: the table collection of the entity
// model names kStoredTypeRegistered<Stored> in its constructor, so each
// stored type that a linked unit can put in a table is known by the time
// main() runs. registerStoredType<Stored>() derives the text form, the key's
// text, the key hash, the look-up by key (when the key type reads its own
// text: a static fromText(), as generated value types have, or an integer)
// and the follower of changes from the type's own operations; a tool may
// register a type again to show its keys its own way. A table of an
// unregistered type is still listed, validated (without the key-hash check)
// and dumped, its values then shown as bytes.
//
// Thread-safety: register before reading from other threads; afterwards
// look-ups only read.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <charconv>
#include <concepts>
#include <memory>

#include "mroute/table/engine/brume_ops.h"
#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/shm/brume_hash.h"
#include "mroute/table/shm/root_path.h"
#include "mroute/table/survey/table_follower.h"

namespace Brume::Survey {

struct ValueCodec {
  std::string typeName;  // the slot file's valueType
  uint32_t size = 0;     // the slot file's valueSize
  std::function<std::string(const unsigned char*)> text;     // the value's text form
  std::function<std::string(const unsigned char*)> keyText;  // its key's text form
  std::function<uint32_t(const unsigned char*)> rhash;       // bitReverse(hash(key))
  // The keys' order (the table's own less), for listings sorted by key.
  std::function<bool(const unsigned char*, const unsigned char*)> keyLess;
  // The value stored under the key `key` names, found through the table's
  // hash chains as a reader finds it; empty when absent. Throws
  // std::invalid_argument (what(): why) for a key text it cannot read, and
  // Pavo::CorruptionDetectedException or std::runtime_error for files a
  // reader cannot use. Null: the type's
  // keys cannot be read from text.
  std::function<std::optional<ValueBytes>(const Mem::RootPath&, std::string_view key)> lookup;
  // A shadow reader of the table "<mountPath>/<name>" reporting its changes.
  std::function<std::unique_ptr<TableFollower>(Mroute::Loop::EventLoop&, std::string_view mountPath,
                                               std::string_view name, const BrumeMapOptions&)>
      follow;
};

// Registers or replaces the codec of codec.typeName.
void registerValueCodec(ValueCodec codec);
// The codec of a stored type, or null when none is registered for that name
// and size.
const ValueCodec* findValueCodec(std::string_view typeName, uint32_t size);

// The value of `bytes` as hex, 32 bytes a line ("  " indented lines).
std::string hexText(const unsigned char* bytes, size_t size);

// A key type that reads its own text form.
template <typename Key>
concept KeyFromText = std::integral<Key> || requires(std::string_view t) {
  { Key::fromText(t) } -> std::convertible_to<Key>;
};

// A key from its text form. Throws std::invalid_argument naming what is wrong.
template <KeyFromText Key>
Key keyFromText(std::string_view text) {
  if constexpr (std::integral<Key>) {
    Key k{};
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), k);
    if (ec != std::errc() || end != text.data() + text.size()) {
      throw std::invalid_argument("'" + std::string(text) + "' is not a number in the key's range");
    }
    return k;
  } else {
    try {
      return Key::fromText(text);
    } catch (const std::invalid_argument&) {
      throw;
    } catch (const std::exception& e) {
      throw std::invalid_argument(e.what());
    }
  }
}

// The codec of a table storing `Stored` (a KivBrumeMapValueWrapper) with
// DefaultOps. `parseKey`, when given, reads a key from the operator's text
// (throwing std::invalid_argument when it cannot) instead of the key type's
// own reader; `showKey`, when given, replaces the key's printed form.
template <typename Stored>
ValueCodec codecOf(std::function<typename Stored::KeyType(std::string_view)> parseKey = nullptr,
                   std::function<std::string(const typename Stored::KeyType&)> showKey = nullptr) {
  using Key = typename Stored::KeyType;
  using Ops = DefaultOps<Key, Stored>;
  if constexpr (KeyFromText<Key>) {
    if (!parseKey) parseKey = [](std::string_view text) { return keyFromText<Key>(text); };
  }
  auto show = [showKey](const Key& key) {
    if (showKey) return showKey(key);
    std::ostringstream os;
    Ops::print(os, key);
    return os.str();
  };
  auto load = [](const unsigned char* p) {
    Stored s;
    std::memcpy(static_cast<void*>(&s), p, sizeof s);
    return s;
  };
  ValueCodec c;
  c.typeName = std::string(Stored::ValueType::kTypeName);
  c.size = sizeof(Stored);
  c.text = [load](const unsigned char* p) {
    std::ostringstream os;
    os << load(p).value;
    return os.str();
  };
  c.keyText = [load, show](const unsigned char* p) { return show(Ops::keyOf(load(p))); };
  c.follow = [show](Mroute::Loop::EventLoop& loop, std::string_view mountPath, std::string_view name,
                    const BrumeMapOptions& options) -> std::unique_ptr<TableFollower> {
    return std::make_unique<TypedFollower<Ops>>(loop, mountPath, name, options, show);
  };
  c.rhash = [load](const unsigned char* p) { return bitReverse(Ops::hash(Ops::keyOf(load(p)))); };
  c.keyLess = [load](const unsigned char* a, const unsigned char* b) {
    return Ops::less(Ops::keyOf(load(a)), Ops::keyOf(load(b)));
  };
  if (parseKey) {
    c.lookup = [parseKey](const Mem::RootPath& root, std::string_view text) -> std::optional<ValueBytes> {
      const auto key = parseKey(text);
      BrumeReader<Ops> reader(root);
      if (!reader.initialize()) throw std::runtime_error("its files cannot be read as a reader reads them");
      Stored s;
      if (!reader.lookup(key, s)) return std::nullopt;
      return bytesOf(s);
    };
  }
  return c;
}

template <typename Stored>
void registerStoredType(std::function<typename Stored::KeyType(std::string_view)> parseKey = nullptr,
                        std::function<std::string(const typename Stored::KeyType&)> showKey = nullptr) {
  registerValueCodec(codecOf<Stored>(std::move(parseKey), std::move(showKey)));
}

// True once the codec of `Stored` is registered: naming it in a table type's
// constructor registers the type before main() (static initialisation).
template <typename Stored>
inline const bool kStoredTypeRegistered = (registerStoredType<Stored>(), true);

// One entry as read from a table: its slot and its value's bytes.
struct StoredEntry {
  uint32_t slot = 0;
  ValueBytes bytes;
};

// Every occupied slot of the table, each value copied whole (a slot that
// changes while it is copied is copied again), in slot order. False with
// *error set (one line) when the slot file cannot be read or fails its header
// checks. Read-only.
bool readEntries(const Mem::RootPath& root, std::vector<StoredEntry>* entries, std::string* error);

}  // namespace Brume::Survey
