// The ring file: where a process keeps its newest trace records.
//
// One file per process, memory-mapped and shared with the page cache, so
// that whatever was written is still in the file after the process crashes
// (not after the machine crashes). The file holds a header and one circular
// region per trace level, each of the size given at creation; a busy level
// therefore never pushes the rare records of another level out.
//
// Layout (native byte order; read it on a machine of the same kind):
//   header, 4096 bytes: magic "RINGTAPE", version, slot size, level count,
//     process id, the longest message kept, the wall-clock time and the
//     process time (Kiln::System::currentTime) at creation, and per level
//     the offset and size of its region;
//   regions, split into 64-byte slots. A record takes whole slots: a head
//     (magic, checksum, sequence number, time, line, sizes, level) followed
//     by the handle name, the file name and the message's arguments in the
//     binary form of Args.h, which a reader turns into text. A record never
//     wraps: one that does not fit before the end of the region starts again
//     at slot 0.
//
// Writing is one memcpy of the record with the head's magic stored last, so
// a record interrupted by a crash fails its checksum and is skipped. Every
// record carries a sequence number that is global to the file, which is how
// a reader puts the levels back into the order of writing. Old records are
// overwritten from the start of their region onward; whatever survives is
// intact, as the checksum proves.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "RingTape/Levels.h"

namespace RingTape {

// Per level, the size of its region in KiB; 0 keeps no records of that
// level.
using LevelSizes = std::array<std::uint32_t, levelCount>;

inline constexpr std::uint32_t minRegionKiB = 4;
inline constexpr std::uint32_t maxRegionKiB = 64 * 1024;
inline constexpr std::uint32_t maxMessageLimit = 4096;
// Handle and file names are cut to this length in a record.
inline constexpr std::size_t maxNameBytes = 64;

struct Record {
  std::uint64_t sequence = 0;
  double time = 0.0;  // Kiln::System::currentTime() when written
  int level = 0;
  std::string handle;
  std::string file;
  int line = 0;
  std::string message;
  bool truncated = false;  // the message was longer than the file keeps
};

class RingWriter {
 public:
  // Creates the file at path, which must not exist yet, sized and filled
  // for the regions, and maps it. nullptr with the reason in *error when
  // that fails or the sizes are out of range (each 0 or minRegionKiB to
  // maxRegionKiB; maxMessageBytes 1 to maxMessageLimit).
  static std::unique_ptr<RingWriter> create(const std::string& path,
                                            const LevelSizes& sizesKiB,
                                            std::uint32_t maxMessageBytes, std::string* error);
  ~RingWriter();
  RingWriter(const RingWriter&) = delete;
  RingWriter& operator=(const RingWriter&) = delete;

  const std::string& path() const { return path_; }

  // The longest text of a message of this level that a reader gets; 0 for
  // a level without a region. Args made for the level keep no more.
  std::size_t messageLimit(int level) const;

  // Writes one record of arguments encoded by Args; a level without a
  // region is skipped. A reader cuts a longer text at a character boundary
  // and marks it truncated.
  void append(int level, std::string_view handle, std::string_view file, int line,
              double time, std::string_view args);

 private:
  RingWriter(std::string path, unsigned char* base, std::size_t bytes,
             std::uint32_t maxMessageBytes);

  struct Region {
    std::size_t offset = 0;
    std::uint32_t slots = 0;
    std::uint32_t next = 0;
  };

  std::string path_;
  unsigned char* base_;
  std::size_t bytes_;
  std::uint32_t maxMessageBytes_;
  std::uint64_t nextSequence_ = 1;
  std::array<Region, levelCount> regions_{};
};

struct RingContents {
  int pid = 0;
  double wallAtCreation = 0.0;
  double timeAtCreation = 0.0;
  // Every intact record, in the order of writing.
  std::vector<Record> records;

  // Wall-clock seconds of a record's process time.
  double wallTime(double time) const { return wallAtCreation + (time - timeAtCreation); }
};

// Reads a ring file, also one that is still being written. nullopt with the
// reason in *error when the file cannot be read or is not a ring file.
std::optional<RingContents> readRingFile(const std::string& path, std::string* error);

// The one-line text of a trace, shared by the trace stream and
// ringtape-dump: "<wall time> <handle> <level> <file>:<line> <message>",
// ending in exactly one newline.
std::string traceLine(double wallTime, std::string_view handle, int level,
                      std::string_view file, int line, std::string_view message);

}  // namespace RingTape
