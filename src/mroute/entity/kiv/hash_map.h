// Keyed collections of entities: Kiv::HashMap (iteration in hash order) and
// Kiv::RbTreeMap (iteration in key order). They are the standard containers
// with a lookup that answers "absent" without inserting; the notification of
// changes is added by the entity that owns the collection (see
// mroute/entity/collection.h).
//
// Thread-safety: none; a collection belongs to its entity's event loop.
#pragma once

#include <functional>
#include <map>
#include <unordered_map>

namespace Kiv {

template <class K, class V, class Hash = std::hash<K>>
class HashMap : public std::unordered_map<K, V, Hash> {
 public:
  using std::unordered_map<K, V, Hash>::unordered_map;
  // The member's value, or null when the key is absent.
  const V* lookup(const K& k) const {
    auto it = this->find(k);
    return it == this->end() ? nullptr : &it->second;
  }
};

template <class K, class V, class Less = std::less<K>>
class RbTreeMap : public std::map<K, V, Less> {
 public:
  using std::map<K, V, Less>::map;
  const V* lookup(const K& k) const {
    auto it = this->find(k);
    return it == this->end() ? nullptr : &it->second;
  }
};

}  // namespace Kiv
