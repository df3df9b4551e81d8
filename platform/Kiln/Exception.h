// Exceptions of the runtime.
//
// RangeException is what a value type throws when it is given a value or a
// text it cannot hold ("VlanIdOrNone::value > 4094 not allowed"). Callers that
// take values from outside catch it and decide; inside the agent it is a
// breach that ends the process. The message names the problem as a person
// reading a log would need it.
#pragma once

#include <stdexcept>
#include <string>

namespace Kiln {

class RangeException : public std::range_error {
 public:
  explicit RangeException(const std::string& what) : std::range_error(what) {}
};

}  // namespace Kiln
