#include "Ovs/OvsHandles.h"

#include <cstdlib>

namespace Ovs {

void CStringDeleter::operator()(char* s) const { std::free(s); }

}  // namespace Ovs
