// Support for generated entity types: containers, reconciliation and the
// reflection records of attributes.
//
// The generator (platform/kilngen) writes, for each attribute, a small policy
// struct that says how to read and write it; the templates here turn a policy
// into an AttrInfo. Hand-written code never needs this header directly.
//
// Reconciliation brings a collection to a wanted content through its setters:
// members absent from the wanted content are deleted first, then every wanted
// member is set, and the setters skip members whose value is unchanged. So a
// reactor hears exactly the members that changed.
#pragma once

#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Kiln/Entity.h"

namespace Kiln {

template <class K, class V>
using HashMap = std::unordered_map<K, V>;
template <class K, class V>
using RbTreeMap = std::map<K, V>;
template <class K>
using HashSet = std::unordered_set<K>;
template <class K>
using RbTreeSet = std::set<K>;

// Keys of a collection that `keep` rejects, gathered before any deletion so
// the walk never runs over a member being removed.
template <class Container, class Keep>
std::vector<typename Container::key_type> keysToDrop(const Container& c, Keep keep) {
  std::vector<typename Container::key_type> drop;
  for (const auto& member : c) {
    if constexpr (requires { member.first; }) {
      if (!keep(member.first)) drop.push_back(member.first);
    } else {
      if (!keep(member)) drop.push_back(member);
    }
  }
  return drop;
}

namespace attr_detail {

template <class P>
const typename P::Owner& owner(const Entity& e) {
  return static_cast<const typename P::Owner&>(e);
}
template <class P>
typename P::Owner& owner(Entity& e) {
  return static_cast<typename P::Owner&>(e);
}

inline void requireObject(const Json& j) {
  if (!j.is_object()) throwJsonError("expected an object, got " + jsonTypeName(j));
}

template <class Form, class Key>
Key parseKey(std::string_view text) {
  try {
    return Form::fromText(text);
  } catch (const JsonError& e) {
    throw JsonError(std::string(text), "bad key: " + e.problem());
  }
}

template <class Form, class Key>
std::string keyText(const void* key) {
  return Form::toText(*static_cast<const Key*>(key));
}

// ---- single values -------------------------------------------------------
template <class P>
struct ValueOps {
  using V = typename P::Value;
  static Json toJson(const Entity& e) { return P::Form::toJson(P::get(owner<P>(e))); }
  static void assignJson(Entity& e, const Json& j) { P::set(owner<P>(e), P::Form::fromJson(j)); }
  static void assignFrom(Entity& t, const Entity& s) { P::set(owner<P>(t), P::get(owner<P>(s))); }
  static bool equal(const Entity& a, const Entity& b) { return P::get(owner<P>(a)) == P::get(owner<P>(b)); }
};

// A constant key: JSON may repeat it but not change it.
template <class P>
struct KeyOps {
  static Json toJson(const Entity& e) { return P::Form::toJson(P::get(owner<P>(e))); }
  static void assignJson(Entity& e, const Json& j) {
    const auto given = P::Form::fromJson(j);
    if (!(given == P::get(owner<P>(e))))
      throwJsonError("is the key " + P::Form::toJson(P::get(owner<P>(e))).dump() + " and cannot be changed to " +
                     j.dump());
  }
  static void assignFrom(Entity&, const Entity&) {}
  static bool equal(const Entity& a, const Entity& b) { return P::get(owner<P>(a)) == P::get(owner<P>(b)); }
};

// ---- keyed values ----------------------------------------------------------
template <class P>
struct MapOps {
  using K = typename P::Key;
  using V = typename P::Value;
  static Json toJson(const Entity& e) {
    Json out = Json::object();
    for (const auto& [k, v] : P::get(owner<P>(e))) out[P::KeyForm::toText(k)] = P::ValueForm::toJson(v);
    return out;
  }
  static void reconcile(Entity& e, const typename P::Container& wanted) {
    auto& o = owner<P>(e);
    for (const K& k : keysToDrop(P::get(o), [&](const K& key) { return wanted.contains(key); })) P::del(o, k);
    for (const auto& [k, v] : wanted) P::set(o, k, v);
  }
  static void assignJson(Entity& e, const Json& j) {
    requireObject(j);
    typename P::Container wanted;
    for (const auto& [text, value] : j.items()) {
      K k = parseKey<typename P::KeyForm, K>(text);
      try {
        wanted.insert_or_assign(std::move(k), P::ValueForm::fromJson(value));
      } catch (const JsonError& err) {
        throw err.within(text);
      }
    }
    reconcile(e, wanted);
  }
  static void assignFrom(Entity& t, const Entity& s) { reconcile(t, P::get(owner<P>(s))); }
  static bool equal(const Entity& a, const Entity& b) { return P::get(owner<P>(a)) == P::get(owner<P>(b)); }
  static bool memberToJson(const Entity& e, std::string_view text, Json& out) {
    const auto& c = P::get(owner<P>(e));
    auto it = c.find(parseKey<typename P::KeyForm, K>(text));
    if (it == c.end()) return false;
    out = P::ValueForm::toJson(it->second);
    return true;
  }
  static void memberAssignJson(Entity& e, std::string_view text, const Json& j) {
    K k = parseKey<typename P::KeyForm, K>(text);
    P::set(owner<P>(e), k, P::ValueForm::fromJson(j));
  }
  static bool memberDel(Entity& e, std::string_view text) {
    return P::del(owner<P>(e), parseKey<typename P::KeyForm, K>(text));
  }
};

// ---- sets: JSON {"member": true, ...} ---------------------------------------
template <class P>
struct SetOps {
  using K = typename P::Key;
  static Json toJson(const Entity& e) {
    Json out = Json::object();
    for (const K& k : P::get(owner<P>(e))) out[P::KeyForm::toText(k)] = true;
    return out;
  }
  static void reconcile(Entity& e, const typename P::Container& wanted) {
    auto& o = owner<P>(e);
    for (const K& k : keysToDrop(P::get(o), [&](const K& key) { return wanted.contains(key); })) P::del(o, k);
    for (const K& k : wanted) P::set(o, k);
  }
  static bool member(const Json& j) { return BuiltinForm<bool>::fromJson(j); }
  static void assignJson(Entity& e, const Json& j) {
    requireObject(j);
    typename P::Container wanted;
    for (const auto& [text, value] : j.items()) {
      K k = parseKey<typename P::KeyForm, K>(text);
      try {
        if (member(value)) wanted.insert(std::move(k));
      } catch (const JsonError& err) {
        throw err.within(text);
      }
    }
    reconcile(e, wanted);
  }
  static void assignFrom(Entity& t, const Entity& s) { reconcile(t, P::get(owner<P>(s))); }
  static bool equal(const Entity& a, const Entity& b) { return P::get(owner<P>(a)) == P::get(owner<P>(b)); }
  static bool memberToJson(const Entity& e, std::string_view text, Json& out) {
    if (!P::get(owner<P>(e)).contains(parseKey<typename P::KeyForm, K>(text))) return false;
    out = true;
    return true;
  }
  static void memberAssignJson(Entity& e, std::string_view text, const Json& j) {
    K k = parseKey<typename P::KeyForm, K>(text);
    if (member(j)) {
      P::set(owner<P>(e), k);
    } else {
      P::del(owner<P>(e), k);
    }
  }
  static bool memberDel(Entity& e, std::string_view text) {
    return P::del(owner<P>(e), parseKey<typename P::KeyForm, K>(text));
  }
};

// ---- owned entities -----------------------------------------------------------
template <class P>
struct EntityMapOps {
  using K = typename P::Key;
  using M = typename P::Member;
  static Json toJson(const Entity& e) {
    Json out = Json::object();
    for (const auto& [k, m] : P::get(owner<P>(e))) out[P::KeyForm::toText(k)] = m->toJson();
    return out;
  }
  static void assignJson(Entity& e, const Json& j) {
    requireObject(j);
    std::map<K, Ptr<M>> wanted;
    for (const auto& [text, value] : j.items()) {
      K k = parseKey<typename P::KeyForm, K>(text);
      Ptr<M> scratch = P::makeScratch(k);
      try {
        scratch->assignJson(value);
      } catch (const JsonError& err) {
        throw err.within(text);
      }
      wanted.insert_or_assign(std::move(k), std::move(scratch));
    }
    auto& o = owner<P>(e);
    for (const K& k : keysToDrop(P::get(o), [&](const K& key) { return wanted.contains(key); })) P::del(o, k);
    for (const auto& [k, scratch] : wanted) scratch->typeInfo().assignFrom(*P::create(o, k), *scratch);
  }
  static void assignFrom(Entity& t, const Entity& s) {
    auto& o = owner<P>(t);
    const auto& source = P::get(owner<P>(s));
    for (const K& k : keysToDrop(P::get(o), [&](const K& key) { return source.contains(key); })) P::del(o, k);
    for (const auto& [k, m] : source) m->typeInfo().assignFrom(*P::create(o, k), *m);
  }
  static bool equal(const Entity& a, const Entity& b) {
    const auto& ca = P::get(owner<P>(a));
    const auto& cb = P::get(owner<P>(b));
    if (ca.size() != cb.size()) return false;
    for (const auto& [k, m] : ca) {
      auto it = cb.find(k);
      if (it == cb.end() || m->toJson() != it->second->toJson()) return false;
    }
    return true;
  }
  static bool memberToJson(const Entity& e, std::string_view text, Json& out) {
    Entity* m = childEntity(e, text);
    if (!m) return false;
    out = m->toJson();
    return true;
  }
  static void memberAssignJson(Entity& e, std::string_view text, const Json& j) {
    K k = parseKey<typename P::KeyForm, K>(text);
    Ptr<M> scratch = P::makeScratch(k);
    scratch->assignJson(j);
    scratch->typeInfo().assignFrom(*P::create(owner<P>(e), k), *scratch);
  }
  static bool memberDel(Entity& e, std::string_view text) {
    return P::del(owner<P>(e), parseKey<typename P::KeyForm, K>(text)) != nullptr;
  }
  static Entity* childEntity(const Entity& e, std::string_view text) {
    const auto& c = P::get(owner<P>(e));
    auto it = c.find(parseKey<typename P::KeyForm, K>(text));
    return it == c.end() ? nullptr : it->second.get();
  }
  static void forEachChild(const Entity& e, const ChildVisitor& visit) {
    for (const auto& [k, m] : P::get(owner<P>(e))) visit(P::KeyForm::toText(k), *m);
  }
};

// ---- indexes of shared entities: rendered by identity, kept by their writer -------
// An index is output only: whole-entity JSON read back from a get may carry it
// and it is ignored there; writing one of its members is refused.
template <class P>
struct RefMapOps {
  using K = typename P::Key;
  static Json toJson(const Entity& e) {
    Json out = Json::object();
    for (const auto& [k, m] : P::get(owner<P>(e))) out[P::KeyForm::toText(k)] = m ? Json(m->identityText()) : Json();
    return out;
  }
  static void assignJson(Entity&, const Json&) {}
  static void assignFrom(Entity& t, const Entity& s) {
    auto& o = owner<P>(t);
    const auto& source = P::get(owner<P>(s));
    for (const K& k : keysToDrop(P::get(o), [&](const K& key) { return source.contains(key); })) P::del(o, k);
    for (const auto& [k, m] : source) P::set(o, k, m);
  }
  static bool equal(const Entity& a, const Entity& b) { return P::get(owner<P>(a)) == P::get(owner<P>(b)); }
  static bool memberToJson(const Entity& e, std::string_view text, Json& out) {
    const auto& c = P::get(owner<P>(e));
    auto it = c.find(parseKey<typename P::KeyForm, K>(text));
    if (it == c.end()) return false;
    out = it->second ? Json(it->second->identityText()) : Json();
    return true;
  }
  static void memberAssignJson(Entity&, std::string_view, const Json&) {
    throwJsonError("is an index kept by the agent and cannot be written");
  }
  static bool memberDel(Entity&, std::string_view) {
    throwJsonError("is an index kept by the agent and cannot be written");
  }
};

// ---- one owned child entity ----------------------------------------------------
template <class P>
struct ChildOps {
  using M = typename P::Member;
  static Json toJson(const Entity& e) {
    const auto& m = P::get(owner<P>(e));
    return m ? m->toJson() : Json();
  }
  static void assignJson(Entity& e, const Json& j) {
    auto& o = owner<P>(e);
    if (j.is_null()) {
      P::del(o);
      return;
    }
    Ptr<M> scratch = P::makeScratch();
    scratch->assignJson(j);
    Ptr<M> live = P::get(o) ? P::get(o) : P::create(o);
    scratch->typeInfo().assignFrom(*live, *scratch);
  }
  static void assignFrom(Entity& t, const Entity& s) {
    auto& o = owner<P>(t);
    const auto& m = P::get(owner<P>(s));
    if (!m) {
      P::del(o);
      return;
    }
    Ptr<M> live = P::get(o) ? P::get(o) : P::create(o);
    m->typeInfo().assignFrom(*live, *m);
  }
  static bool equal(const Entity& a, const Entity& b) {
    const auto& ma = P::get(owner<P>(a));
    const auto& mb = P::get(owner<P>(b));
    if (!ma || !mb) return !ma && !mb;
    return ma->toJson() == mb->toJson();
  }
  static Entity* childEntity(const Entity& e, std::string_view) { return P::get(owner<P>(e)).get(); }
  static void forEachChild(const Entity& e, const ChildVisitor& visit) {
    if (const auto& m = P::get(owner<P>(e))) visit(P::name, *m);
  }
};

}  // namespace attr_detail

template <class P>
constexpr AttrInfo keyAttr(const char* name, std::uint16_t index) {
  using O = attr_detail::KeyOps<P>;
  return AttrInfo{name, AttrKind::key, &P::Owner::typeInfo_, index, nullptr, false,
                  &O::toJson, &O::assignJson, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  &O::assignFrom, &O::equal, nullptr};
}

template <class P>
constexpr AttrInfo valueAttr(const char* name, std::uint16_t index, const char* partialName) {
  using O = attr_detail::ValueOps<P>;
  return AttrInfo{name, AttrKind::value, &P::Owner::typeInfo_, index, nullptr, true,
                  &O::toJson, &O::assignJson, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                  &O::assignFrom, &O::equal, partialName};
}

template <class P>
constexpr AttrInfo mapAttr(const char* name, std::uint16_t index, const char* partialName) {
  using O = attr_detail::MapOps<P>;
  return AttrInfo{name, AttrKind::valueMap, &P::Owner::typeInfo_, index, nullptr, true,
                  &O::toJson, &O::assignJson, &O::memberToJson, &O::memberAssignJson, &O::memberDel,
                  nullptr, nullptr, &attr_detail::keyText<typename P::KeyForm, typename P::Key>,
                  &O::assignFrom, &O::equal, partialName};
}

template <class P>
constexpr AttrInfo setAttr(const char* name, std::uint16_t index, const char* partialName) {
  using O = attr_detail::SetOps<P>;
  return AttrInfo{name, AttrKind::set, &P::Owner::typeInfo_, index, nullptr, true,
                  &O::toJson, &O::assignJson, &O::memberToJson, &O::memberAssignJson, &O::memberDel,
                  nullptr, nullptr, &attr_detail::keyText<typename P::KeyForm, typename P::Key>,
                  &O::assignFrom, &O::equal, partialName};
}

template <class P>
constexpr AttrInfo entityMapAttr(const char* name, std::uint16_t index) {
  using O = attr_detail::EntityMapOps<P>;
  return AttrInfo{name, AttrKind::entityMap, &P::Owner::typeInfo_, index, &P::Member::typeInfo_, true,
                  &O::toJson, &O::assignJson, &O::memberToJson, &O::memberAssignJson, &O::memberDel,
                  &O::childEntity, &O::forEachChild,
                  &attr_detail::keyText<typename P::KeyForm, typename P::Key>, &O::assignFrom, &O::equal,
                  nullptr};
}

template <class P>
constexpr AttrInfo refMapAttr(const char* name, std::uint16_t index) {
  using O = attr_detail::RefMapOps<P>;
  return AttrInfo{name, AttrKind::refMap, &P::Owner::typeInfo_, index, &P::Member::typeInfo_, false,
                  &O::toJson, &O::assignJson, &O::memberToJson, &O::memberAssignJson, &O::memberDel,
                  nullptr, nullptr, &attr_detail::keyText<typename P::KeyForm, typename P::Key>,
                  &O::assignFrom, &O::equal, nullptr};
}

template <class P>
constexpr AttrInfo childAttr(const char* name, std::uint16_t index) {
  using O = attr_detail::ChildOps<P>;
  return AttrInfo{name, AttrKind::child, &P::Owner::typeInfo_, index, &P::Member::typeInfo_, true,
                  &O::toJson, &O::assignJson, nullptr, nullptr, nullptr, &O::childEntity, &O::forEachChild,
                  nullptr, &O::assignFrom, &O::equal, nullptr};
}

}  // namespace Kiln
