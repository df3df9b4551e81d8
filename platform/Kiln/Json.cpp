#include "Kiln/Json.h"

namespace Kiln {

namespace {
std::string describe(const std::string& where, const std::string& problem) {
  return where.empty() ? problem : where + ": " + problem;
}
}  // namespace

JsonError::JsonError(std::string where, std::string problem)
    : std::runtime_error(describe(where, problem)), where_(std::move(where)), problem_(std::move(problem)) {}

JsonError JsonError::within(std::string_view outer) const {
  if (outer.empty()) return *this;
  std::string path(outer);
  if (!where_.empty()) path += "/" + where_;
  return JsonError(std::move(path), problem_);
}

void throwJsonError(std::string problem) { throw JsonError("", std::move(problem)); }

std::string jsonTypeName(const Json& j) {
  switch (j.type()) {
    case Json::value_t::null: return "null";
    case Json::value_t::object: return "an object";
    case Json::value_t::array: return "an array";
    case Json::value_t::string: return "the string " + j.dump();
    case Json::value_t::boolean: return j.dump();
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned: return "the integer " + j.dump();
    case Json::value_t::number_float: return "the number " + j.dump();
    default: return "an unsupported value";
  }
}

std::string quoted(std::string_view text) { return Json(std::string(text)).dump(); }

}  // namespace Kiln
