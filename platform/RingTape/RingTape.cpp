#include "RingTape/RingTape.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "Kiln/Log.h"
#include "Kiln/System.h"
#include "RingTape/TapeFiles.h"

namespace RingTape {
namespace {

constexpr const char* streamVariable = "VGW_TRACE";
constexpr const char* ringVariable = "VGW_RINGTAPE_LEVELS";
constexpr const char* ringDefault = "*/0-6";

struct State {
  std::vector<Handle*> handles;
  bool levelsRead = false;
  LevelSelection streamSelection;
  LevelSelection ringSelection;
  std::unique_ptr<RingWriter> ring;
  std::ostream* stream = nullptr;
  // Arguments for Statement; the first `argsInUse` are lent out.
  std::vector<std::unique_ptr<Args>> args;
  std::size_t argsInUse = 0;
};

// Never destroyed: handles of other units may trace and unregister during
// static destruction, in any order.
State& state() {
  static auto* s = new State;
  return *s;
}

std::ostream& traceStream() {
  // Handles are built at static start-up, possibly before the standard
  // streams of this unit are; an Init object makes sure they exist.
  static const std::ios_base::Init streamsReady;
  State& s = state();
  return s.stream ? *s.stream : std::cerr;
}

void warn(const std::string& text) { traceStream() << "ringtape: " << text << std::endl; }

LevelSelection selectionFromEnvironment(const char* variable, const char* defaultText) {
  std::string error;
  if (const char* value = std::getenv(variable)) {
    if (auto selection = LevelSelection::parse(value, &error)) return *selection;
    warn(std::string("ignoring ") + variable + "=\"" + value + "\": " + error + "; using " +
         (*defaultText ? std::string("\"") + defaultText + "\"" : "no levels"));
  }
  return LevelSelection::parse(defaultText, &error).value_or(LevelSelection());
}

void readLevels() {
  State& s = state();
  s.streamSelection = selectionFromEnvironment(streamVariable, "");
  s.ringSelection = selectionFromEnvironment(ringVariable, ringDefault);
  s.levelsRead = true;
}

void applyLevels(Handle& handle) {
  const State& s = state();
  handle.levelsAre(s.streamSelection.levelsFor(handle.name()), s.ringSelection.levelsFor(handle.name()),
                   s.ring != nullptr);
}

void applyLevelsToAll() {
  for (Handle* handle : state().handles) applyLevels(*handle);
}

}  // namespace

Handle::Handle(const char* name) : name_(name ? name : "") {
  State& s = state();
  if (!s.levelsRead) readLevels();
  s.handles.push_back(this);
  applyLevels(*this);
}

Handle::~Handle() {
  auto& handles = state().handles;
  handles.erase(std::remove(handles.begin(), handles.end(), this), handles.end());
}

void Handle::levelsAre(LevelMask stream, LevelMask ring, bool ringOpen) {
  streamLevels_ = stream;
  ringLevels_ = ring;
  effective_ = std::uint32_t{stream} * streamBit | (ringOpen ? std::uint32_t{ring} * ringBit : 0);
}

namespace {

Args& borrowArgs() {
  State& s = state();
  if (s.argsInUse == s.args.size()) s.args.push_back(std::make_unique<Args>());
  return *s.args[s.argsInUse++];
}

}  // namespace

Statement::Statement(const Handle& handle, int level, const char* file, int line, unsigned tapes)
    : handle_(handle),
      level_(level),
      file_(file),
      line_(line),
      tapes_(tapes),
      toStream_((tapes & streamTape) && handle.streamEnabled(level)),
      args_(borrowArgs()) {
  // Only the ring's part of the text is kept, unless the stream takes it all.
  const State& s = state();
  const bool toRing = (tapes & ringTape) && handle.ringEnabled(level) && s.ring;
  args_.reset(toStream_ || !toRing ? Args::unlimited : s.ring->messageLimit(level));
}

Statement::~Statement() {
  args_.trim();
  --state().argsInUse;
}

void Statement::emit() {
  State& s = state();
  const bool toRing = (tapes_ & ringTape) && handle_.ringEnabled(level_) && s.ring;
  if (toStream_) {
    const std::string message = formatArgs(args_.bytes());
    const std::string line = traceLine(Kiln::wallTimeNow(), handle_.name(), level_, file_, line_, message);
    traceStream().write(line.data(), static_cast<std::streamsize>(line.size())).flush();
    if (toRing) {
      // The stream took all of it; the ring keeps its part, as text.
      Args& kept = borrowArgs();
      kept.reset(s.ring->messageLimit(level_));
      kept << message;
      s.ring->append(level_, handle_.name(), file_, line_, Kiln::System::currentTime(), kept.bytes());
      kept.trim();
      --s.argsInUse;
    }
    return;
  }
  if (toRing) s.ring->append(level_, handle_.name(), file_, line_, Kiln::System::currentTime(), args_.bytes());
}

BlockTimer::BlockTimer(const Handle& handle, int level, const char* label, const char* file,
                       int line)
    : handle_(handle),
      level_(level),
      label_(label),
      file_(file),
      line_(line),
      start_(0.0),
      running_(handle.enabled(level)) {
  if (running_) start_ = Kiln::System::currentTime();
}

BlockTimer::~BlockTimer() {
  if (!running_) return;
  const double milliseconds = (Kiln::System::currentTime() - start_) * 1e3;
  Statement statement(handle_, level_, fileBaseName(file_), line_, bothTapes);
  statement.args() << label_ << " took " << std::fixed << std::setprecision(3) << milliseconds << " ms";
  statement.emit();
}

bool initialize(const char* name, const LevelSizes& sizesKiB, const char* linkName,
                int keepOldTapes, int maxAgeHours, ThreadingMode, bool keepPrevious,
                std::uint32_t maxMessageBytes) {
  if (std::getenv("RINGTAPE_DISABLE")) return false;
  close();
  if (!name || !*name || std::strchr(name, '/')) {
    warn(std::string("the ring file name \"") + (name ? name : "") +
         "\" must be a plain file name; ring tracing is off");
    return false;
  }
  const std::string dir = tapeDirectory();
  const std::string file = expandTapeName(name, static_cast<int>(getpid()));
  const std::string path = dir + "/" + file;
  std::string error;
  if (keepPrevious) {
    // Without the earlier tape set aside the new one would destroy it, and
    // it may be all that is left of a crashed run.
    if (!setAside(path, &error)) {
      warn(error + "; ring tracing is off");
      return false;
    }
  } else if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    warn("cannot replace " + path + ": " + std::strerror(errno) + "; ring tracing is off");
    return false;
  }
  auto ring = RingWriter::create(path, sizesKiB, maxMessageBytes, &error);
  if (!ring) {
    warn(error + "; ring tracing is off");
    return false;
  }
  state().ring = std::move(ring);
  if (linkName && !linkTape(dir, linkName, file, &error)) warn(error);
  removeOldTapes(dir, name, file, keepOldTapes, maxAgeHours);
  applyLevelsToAll();
  return true;
}

void close() {
  State& s = state();
  if (!s.ring) return;
  s.ring.reset();
  applyLevelsToAll();
}

bool isOpen() { return state().ring != nullptr; }

std::string ringPath() {
  const State& s = state();
  return s.ring ? s.ring->path() : std::string();
}

void reloadLevels() {
  readLevels();
  applyLevelsToAll();
}

void streamIs(std::ostream* stream) { state().stream = stream; }

void recordAssertion(const char* text, const char* file, int line) {
  State& s = state();
  if (!s.ring) return;
  Args& args = borrowArgs();
  args.reset(s.ring->messageLimit(0));
  args << text;
  s.ring->append(0, "Assert", fileBaseName(file ? file : ""), line, Kiln::System::currentTime(), args.bytes());
  --s.argsInUse;
}

}  // namespace RingTape
