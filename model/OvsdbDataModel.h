// The bases of the mirror's rows, and the table enumeration's helpers.
//
// Every row of the mirror is an OvsdbDataModel: an entity with its table and
// its uuid, both constant. Rows that the agent writes are
// OvsdbDataModelMutable and can be partial: an attribute whose name stands in
// invalidAttrib with the value true is not part of the row's value. It is left
// out of the row's database form, clone() does not copy it and isEqualTo()
// does not compare it, which is how a transaction updates some columns of a
// row and leaves the others alone. The names are the attributes' partial
// names, declared with the row types.
//
// nextOvsdbDataType() walks the tables in the order in which a monitor
// message is applied: every table after the tables its rows refer to.
#pragma once

#include <map>

#include "Kiln/Entity.h"
#include "model/Enums.h"
#include "model/Uuid.h"

namespace Vgw {

class OvsdbDataModel : public Kiln::Entity {
 public:
  OvsdbDataModel(OvsdbDataType type, const Uuid& uuid) : type_(type), uuid_(uuid) {}
  static const Kiln::TypeInfo typeInfo_;
  const Kiln::TypeInfo& typeInfo() const override { return typeInfo_; }

  OvsdbDataType type() const { return type_; }
  const Uuid& uuid() const { return uuid_; }

 private:
  const OvsdbDataType type_;
  const Uuid uuid_;
};

class OvsdbDataModelMutable : public OvsdbDataModel {
 public:
  using OvsdbDataModel::OvsdbDataModel;
  static const Kiln::TypeInfo typeInfo_;
  const Kiln::TypeInfo& typeInfo() const override { return typeInfo_; }

  const std::map<Kiln::String, bool>& invalidAttrib() const { return invalidAttrib_; }
  bool invalidAttrib(const Kiln::String& name) const;
  void invalidAttribIs(const Kiln::String& name, bool invalid);
  void invalidAttribDel(const Kiln::String& name) { invalidAttrib_.erase(name); }
  // How many attributes are marked absent.
  std::size_t invalidAttribs() const;

  // Copies every attribute that `source` (a row of the same type) carries.
  virtual void clone(const OvsdbDataModelMutable& source);
  // Compares the attributes that both rows carry.
  virtual bool isEqualTo(const OvsdbDataModelMutable& other) const;
  // Marks every attribute with a partial name absent.
  virtual void invalidateAllAttribs();

 private:
  std::map<Kiln::String, bool> invalidAttrib_;
};

// The table's name in the schema; empty for none and out of range.
const char* ovsdbTableName(OvsdbDataType type);
// The next table in the order of monitor processing; none after the last,
// and for a value out of range.
OvsdbDataType nextOvsdbDataType(OvsdbDataType type);
OvsdbDataType OvsdbDataTypeInstance(unsigned value);
// The table of that schema name, or none.
OvsdbDataType ovsdbDataTypeOfTable(std::string_view tableName);

}  // namespace Vgw
