#include "Kiln/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kiln {

namespace {
AssertionHook hook = nullptr;
}

void assertionHookIs(AssertionHook h) { hook = h; }

void assertionFailed(const char* text, const char* file, int line, const char* function) {
  std::fprintf(stderr, "Assertion failed: %s (%s:%d, %s)\n", text, file, line, function);
  std::fflush(stderr);
  if (hook) hook(text, file, line);
  std::abort();
}

}  // namespace Kiln
