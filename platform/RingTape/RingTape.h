// RingTape: the trace facility.
//
// Traces are for the developer reading what the agent did; operator-visible
// events go through Kiln::log instead. A trace goes to two tapes: the trace
// stream (standard error, one line per trace) and the ring file of the
// process (RingFile.h), which keeps the newest records of every level so
// that `ringtape-dump FILE` can show what a crashed agent was doing.
// Tracing never changes behaviour: a tape that cannot be opened is skipped,
// and the facility's own failures are warnings, never errors to the caller.
//
// Use, once per source unit and at file scope:
//
//   RINGTAPE_HANDLE("VgwRemoteHost");
//
//   VGW_TRACE(6, "Session State: " << state);     // stream and ring
//   VGW_TRACE_RING(6, ". Waiting to die.");       // ring only
//   VGW_TRACE_BLOCK_TIME(5, "handleRefresh");     // at scope end:
//                                                 // "handleRefresh took 0.012 ms"
//   if (VGW_TRACE_ENABLED(8)) { ...expensive preparation... }
//
// Levels run from 0 to 9: 0 hard errors, 5 handler entry and exit, 6
// events, higher numbers more detail. The level is a constant. The stream
// expression is evaluated only when the level is selected for a tape that
// is open; otherwise the statement costs one load and one branch. The
// message is stored as given: trace words with leading blanks keep them.
//
// The stream expression goes into a RingTape::Args (Args.h), which the ring
// keeps in binary: a trace costs no formatting unless the trace stream takes
// it, and keeps no more than the ring shows of it.
//
// Level selection, read from the environment at start-up (and again by
// reloadLevels), in the syntax of Levels.h:
//   VGW_TRACE             levels written to the trace stream; unset: none.
//   VGW_RINGTAPE_LEVELS   levels written to the ring; unset: "*/0-6".
// A malformed value gives one warning on the trace stream and the default
// is used instead.
//
// Stream lines read "<UTC time> <handle> <level> <file>:<line> <message>".
//
// Single-threaded: there are no locks (see ThreadingMode).
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "RingTape/Args.h"
#include "RingTape/Levels.h"
#include "RingTape/RingFile.h"

namespace RingTape {

// One per source unit, named after it. Handles with the same name share
// their levels.
class Handle {
 public:
  explicit Handle(const char* name);
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const std::string& name() const { return name_; }

  // Whether a trace of this level goes anywhere now.
  bool enabled(int level) const { return (effective_ & (bothBits << level)) != 0; }
  bool streamEnabled(int level) const { return (effective_ & (streamBit << level)) != 0; }
  bool ringEnabled(int level) const { return (effective_ & (ringBit << level)) != 0; }

  // The selected levels, whether or not the ring is open.
  LevelMask streamLevels() const { return streamLevels_; }
  LevelMask ringLevels() const { return ringLevels_; }

  // Recomputes what is enabled from the selections and the ring's state.
  void levelsAre(LevelMask stream, LevelMask ring, bool ringOpen);

 private:
  static constexpr std::uint32_t streamBit = 1u;
  static constexpr std::uint32_t ringBit = 1u << 16;
  static constexpr std::uint32_t bothBits = streamBit | ringBit;

  std::string name_;
  LevelMask streamLevels_ = 0;
  LevelMask ringLevels_ = 0;
  std::uint32_t effective_ = 0;
};

enum Tapes : unsigned { streamTape = 1, ringTape = 2, bothTapes = 3 };

// One trace on its way: collects the arguments, then writes them to the
// tapes asked for that are enabled for the level. The Args are borrowed
// from a pool, so that their buffers are made once; a trace inside the
// stream expression of another borrows Args of its own. `file` is the base
// name of the source file.
class Statement {
 public:
  Statement(const Handle& handle, int level, const char* file, int line, unsigned tapes);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  Args& args() { return args_; }
  void emit();

 private:
  const Handle& handle_;
  int level_;
  const char* file_;
  int line_;
  unsigned tapes_;
  bool toStream_;
  Args& args_;
};

// The file name of a path, for __FILE__ at compile time.
constexpr const char* fileBaseName(const char* path) {
  const char* base = path;
  for (const char* at = path; *at; ++at) {
    if (*at == '/') base = at + 1;
  }
  return base;
}

// Traces "<label> took <milliseconds> ms" when the scope ends, measured on
// Kiln::System::currentTime(). Nothing is measured when the level is off at
// the start.
class BlockTimer {
 public:
  BlockTimer(const Handle& handle, int level, const char* label, const char* file, int line);
  ~BlockTimer();
  BlockTimer(const BlockTimer&) = delete;
  BlockTimer& operator=(const BlockTimer&) = delete;

 private:
  const Handle& handle_;
  int level_;
  const char* label_;
  const char* file_;
  int line_;
  double start_;
  bool running_;
};

// The ring has no locks; single-threaded is the only mode, and callers name
// it so that the assumption stands where the ring is opened.
enum class ThreadingMode { singleThreaded };

// Opens the ring file of this process and starts writing to it.
//
//   name            file name template; every "%d" becomes the process id.
//                   The file goes into RINGTAPEDIR, or /tmp when unset.
//   sizesKiB        region size per level (RingFile.h).
//   linkName        when not null, a symbolic link of that name in the same
//                   directory is pointed at the new file, so that the
//                   newest tape is found under a fixed name.
//   keepOldTapes,   clearing of earlier tapes of the same template (other
//   maxAgeHours     process ids, ".prev" copies): those not modified for
//                   maxAgeHours are removed, except the keepOldTapes newest
//                   and those of processes that still run. A negative
//                   maxAgeHours keeps everything.
//   keepPrevious    an earlier file of the same name is renamed to
//                   "<file>.prev" instead of being replaced. Set it when the
//                   last run may have ended without cleaning up (its lock
//                   file was still there), so that its tape survives.
//   maxMessageBytes longest message kept per record; longer ones are cut.
//
// Returns whether the ring is open. Any failure (RINGTAPE_DISABLE set,
// values out of range, a file that cannot be made) leaves the ring closed
// with one warning on the trace stream (none for RINGTAPE_DISABLE); ring
// writes are then no-ops, as they are before initialize. A second call
// replaces the ring of the first.
bool initialize(const char* name, const LevelSizes& sizesKiB, const char* linkName,
                int keepOldTapes, int maxAgeHours, ThreadingMode mode, bool keepPrevious,
                std::uint32_t maxMessageBytes);

// Stops writing to the ring; the file stays for reading.
void close();
bool isOpen();
// The path of the open ring file; empty when closed.
std::string ringPath();

// Reads VGW_TRACE and VGW_RINGTAPE_LEVELS again and applies them to every
// handle.
void reloadLevels();

// The trace stream; nullptr restores standard error. The caller keeps
// ownership and must keep the stream alive while it is installed.
void streamIs(std::ostream* stream);

// Keeps the text of a failed assertion in the ring at level 0 (the
// assertion itself writes it to standard error). Has the signature of
// Kiln::AssertionHook.
void recordAssertion(const char* text, const char* file, int line);

}  // namespace RingTape

#define RINGTAPE_CONCAT_(a, b) a##b
#define RINGTAPE_CONCAT(a, b) RINGTAPE_CONCAT_(a, b)

// Declares the source unit's handle; the macros below find it by name.
#define RINGTAPE_HANDLE(name) static ::RingTape::Handle ringTapeHandle_(name)

#define RINGTAPE_LEVEL_CHECK_(level) \
  static_assert((level) >= 0 && (level) < ::RingTape::levelCount, "trace levels run 0 to 9")

#define RINGTAPE_TRACE_(level, tapes, enabledTest, ...)                                       \
  do {                                                                                       \
    RINGTAPE_LEVEL_CHECK_(level);                                                            \
    if (ringTapeHandle_.enabledTest(level)) [[unlikely]] {                                   \
      static constexpr const char* ringTapeFile_ = ::RingTape::fileBaseName(__FILE__);       \
      ::RingTape::Statement ringTapeStatement_(ringTapeHandle_, (level), ringTapeFile_, __LINE__, \
                                               (tapes));                                     \
      ringTapeStatement_.args() << __VA_ARGS__;                                              \
      ringTapeStatement_.emit();                                                             \
    }                                                                                        \
  } while (false)

// The stream expression may hold commas (template arguments).
#define VGW_TRACE(level, ...) \
  RINGTAPE_TRACE_(level, ::RingTape::bothTapes, enabled, __VA_ARGS__)
#define VGW_TRACE_RING(level, ...) \
  RINGTAPE_TRACE_(level, ::RingTape::ringTape, ringEnabled, __VA_ARGS__)
#define VGW_TRACE_ENABLED(level) (ringTapeHandle_.enabled(level))
#define VGW_TRACE_BLOCK_TIME(level, label)                                                  \
  RINGTAPE_LEVEL_CHECK_(level);                                                            \
  ::RingTape::BlockTimer RINGTAPE_CONCAT(ringTapeTimer_, __LINE__)(ringTapeHandle_, (level), \
                                                                   (label), __FILE__, __LINE__)
