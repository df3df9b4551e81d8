#include "model/OvsdbDataModel.h"

#include <array>

#include "Kiln/Assert.h"

namespace Vgw {

namespace {

Kiln::Ptr<Kiln::Entity> noScratch(const Kiln::Entity&) {
  KILN_ASSERT(false, "a row base cannot be made on its own");
  return nullptr;
}

constexpr std::array<const char*, 18> tableNames = {
    "",           "Logical_Switch",   "Logical_Binding_Stats", "Physical_Port",     "Physical_Switch",
    "Physical_Locator", "Physical_Locator_Set", "Ucast_Macs_Remote", "Mcast_Macs_Remote", "Global",
    "ACL",        "Manager",          "Ucast_Macs_Local",      "Mcast_Macs_Local",  "Tunnel",
    "Logical_Router", "Arp_Sources_Local", "Arp_Sources_Remote"};

// The chain of monitor processing: next[t] follows t.
constexpr std::array<OvsdbDataType, 18> nextInChain = [] {
  using T = OvsdbDataType;
  constexpr T order[] = {T::logicalSwitch,  T::logicalBindingStats, T::physicalLocator, T::tunnel,
                         T::physicalLocatorSet, T::physicalPort, T::physicalSwitch, T::arpSourcesLocal,
                         T::arpSourcesRemote, T::ucastMacsRemote, T::mcastMacsRemote, T::ucastMacsLocal,
                         T::mcastMacsLocal, T::logicalRouter, T::manager, T::global, T::acl};
  std::array<T, 18> next{};
  T previous = T::none;
  for (T t : order) {
    next[static_cast<unsigned>(previous)] = t;
    previous = t;
  }
  next[static_cast<unsigned>(previous)] = T::none;
  return next;
}();

}  // namespace

const Kiln::TypeInfo OvsdbDataModel::typeInfo_{"Vgw::OvsdbDataModel", &Kiln::Entity::typeInfo_, {}, nullptr,
                                               &noScratch};
const Kiln::TypeInfo OvsdbDataModelMutable::typeInfo_{"Vgw::OvsdbDataModelMutable", &OvsdbDataModel::typeInfo_, {},
                                                      nullptr, &noScratch};

bool OvsdbDataModelMutable::invalidAttrib(const Kiln::String& name) const {
  auto it = invalidAttrib_.find(name);
  return it != invalidAttrib_.end() && it->second;
}

void OvsdbDataModelMutable::invalidAttribIs(const Kiln::String& name, bool invalid) {
  invalidAttrib_.insert_or_assign(name, invalid);
}

std::size_t OvsdbDataModelMutable::invalidAttribs() const {
  std::size_t n = 0;
  for (const auto& [name, invalid] : invalidAttrib_) n += invalid ? 1 : 0;
  return n;
}

void OvsdbDataModelMutable::clone(const OvsdbDataModelMutable& source) {
  KILN_ASSERT(&source.typeInfo() == &typeInfo(), "clone between rows of different tables");
  typeInfo().forEachAttr([&](const Kiln::AttrInfo& a) {
    if (!a.writable || !a.assignFrom) return;
    if (a.partialName && source.invalidAttrib(a.partialName)) return;
    a.assignFrom(*this, source);
  });
}

bool OvsdbDataModelMutable::isEqualTo(const OvsdbDataModelMutable& other) const {
  if (&other.typeInfo() != &typeInfo()) return false;
  bool equal = true;
  typeInfo().forEachAttr([&](const Kiln::AttrInfo& a) {
    if (!equal || !a.writable || !a.equal) return;
    if (a.partialName && (invalidAttrib(a.partialName) || other.invalidAttrib(a.partialName))) return;
    equal = a.equal(*this, other);
  });
  return equal;
}

void OvsdbDataModelMutable::invalidateAllAttribs() {
  typeInfo().forEachAttr([&](const Kiln::AttrInfo& a) {
    if (a.partialName) invalidAttribIs(a.partialName, true);
  });
}

const char* ovsdbTableName(OvsdbDataType type) {
  const auto i = static_cast<unsigned>(type);
  return i < tableNames.size() ? tableNames[i] : "";
}

OvsdbDataType nextOvsdbDataType(OvsdbDataType type) {
  const auto i = static_cast<unsigned>(type);
  return i < nextInChain.size() ? nextInChain[i] : OvsdbDataType::none;
}

OvsdbDataType OvsdbDataTypeInstance(unsigned value) { return static_cast<OvsdbDataType>(value); }

OvsdbDataType ovsdbDataTypeOfTable(std::string_view tableName) {
  for (unsigned i = 1; i < tableNames.size(); ++i) {
    if (tableName == tableNames[i]) return static_cast<OvsdbDataType>(i);
  }
  return OvsdbDataType::none;
}

}  // namespace Vgw
