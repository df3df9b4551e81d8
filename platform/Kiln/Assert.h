// KILN_ASSERT: the runtime's assertion.
//
// An assertion states an invariant whose breach means the process can no
// longer trust its own state (a dangling reference, an impossible state). It
// is always compiled in, whatever NDEBUG says: it prints its text with the
// source position to standard error and to the trace ring, then aborts, and
// the supervisor restarts the process. Failures caused by data from outside
// are never assertions; they are errors reported to the caller.
#pragma once

namespace Kiln {

[[noreturn]] void assertionFailed(const char* text, const char* file, int line,
                                  const char* function);

// Called with the text just before the process aborts, so that a trace ring
// can keep the reason. Only one hook is held; nullptr removes it.
using AssertionHook = void (*)(const char* text, const char* file, int line);
void assertionHookIs(AssertionHook hook);

}  // namespace Kiln

// The text is the operator-visible reason, given verbatim.
#define KILN_ASSERT(condition, text)                                          \
  do {                                                                        \
    if (!(condition)) [[unlikely]]                                            \
      ::Kiln::assertionFailed((text), __FILE__, __LINE__, __func__);          \
  } while (false)
