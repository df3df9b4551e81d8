#include "RingTape/RingFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "Kiln/Log.h"
#include "Kiln/System.h"
#include "RingTape/Args.h"

namespace RingTape {
namespace {

constexpr char fileMagic[8] = {'R', 'I', 'N', 'G', 'T', 'A', 'P', 'E'};
// Version 2 keeps messages as arguments in binary.
constexpr std::uint32_t fileVersion = 2;
constexpr std::uint32_t headerBytes = 4096;
constexpr std::uint32_t slotBytes = 64;
constexpr std::uint32_t recordMagic = 0x52544b31;  // "RTK1"

struct FileHeader {
  char magic[8];
  std::uint32_t version;
  std::uint32_t headerBytes;
  std::uint32_t slotBytes;
  std::uint32_t levels;
  std::uint32_t pid;
  std::uint32_t maxMessageBytes;
  double wallAtCreation;
  double timeAtCreation;
  std::uint64_t regionOffset[levelCount];
  std::uint64_t regionBytes[levelCount];
};
static_assert(sizeof(FileHeader) <= headerBytes);

struct RecordHead {
  std::uint32_t magic;
  std::uint32_t checksum;  // over the record from `sequence` to its end
  std::uint64_t sequence;
  double time;
  std::uint32_t line;
  std::uint16_t slots;
  std::uint16_t argBytes;
  std::uint8_t level;
  std::uint8_t handleBytes;
  std::uint8_t fileBytes;
  std::uint8_t flags;  // none defined yet
};
static_assert(sizeof(RecordHead) == 40);
constexpr std::size_t checksumStart = offsetof(RecordHead, sequence);
// The encoded arguments of a record, whatever their text would show; a
// region's records always fit a 16-bit size.
constexpr std::size_t maxArgBytes = 4 * maxMessageLimit + 1024;

std::size_t messageLimitOf(std::uint32_t maxMessageBytes, std::size_t regionBytes) {
  const std::size_t room = sizeof(RecordHead) + 2 * maxNameBytes;
  return regionBytes <= room ? 0 : std::min<std::size_t>(maxMessageBytes, regionBytes - room);
}

// FNV-1a over 8-byte words with a final mix; byte by byte it would cost
// more than the rest of writing a record.
std::uint32_t checksumOf(const unsigned char* bytes, std::size_t size) {
  constexpr std::uint64_t prime = 1099511628211ull;
  std::uint64_t hash = 14695981039346656037ull;
  std::size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes + i, 8);
    hash = (hash ^ word) * prime;
  }
  std::uint64_t tail = 0;
  std::memcpy(&tail, bytes + i, size - i);
  hash = (hash ^ tail ^ (std::uint64_t{size} << 56)) * prime;
  hash ^= hash >> 29;
  hash *= 0xbf58476d1ce4e5b9ull;
  hash ^= hash >> 32;
  return static_cast<std::uint32_t>(hash);
}

std::size_t slotsFor(std::size_t bytes) { return (bytes + slotBytes - 1) / slotBytes; }

// The longest prefix of text no longer than limit that does not end inside
// a UTF-8 sequence.
std::string_view cutAt(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xc0) == 0x80) --limit;
  return text.substr(0, limit);
}

std::string systemError(const std::string& what, const std::string& path, int error) {
  return what + " " + path + ": " + std::strerror(error);
}

// The record at `at`, when one is there whole; *slots is how many it takes.
std::optional<Record> recordAt(const unsigned char* at, std::size_t slotsLeft, int level, std::size_t messageLimit,
                               std::size_t* slots) {
  RecordHead head;
  std::memcpy(&head, at, sizeof head);
  if (head.magic != recordMagic || head.slots == 0 || head.slots > slotsLeft ||
      head.level != level) {
    return std::nullopt;
  }
  const std::size_t bytes =
      sizeof head + std::size_t{head.handleBytes} + head.fileBytes + head.argBytes;
  if (slotsFor(bytes) != head.slots ||
      checksumOf(at + checksumStart, bytes - checksumStart) != head.checksum) {
    return std::nullopt;
  }
  const auto* text = reinterpret_cast<const char*>(at + sizeof head);
  *slots = head.slots;
  Record record;
  record.sequence = head.sequence;
  record.time = head.time;
  record.level = head.level;
  record.handle.assign(text, head.handleBytes);
  record.file.assign(text + head.handleBytes, head.fileBytes);
  record.line = static_cast<int>(head.line);
  record.message = formatArgs(std::string_view(text + head.handleBytes + head.fileBytes, head.argBytes));
  record.truncated = record.message.size() > messageLimit;
  if (record.truncated) record.message.resize(cutAt(record.message, messageLimit).size());
  return record;
}

}  // namespace

std::unique_ptr<RingWriter> RingWriter::create(const std::string& path,
                                               const LevelSizes& sizesKiB,
                                               std::uint32_t maxMessageBytes,
                                               std::string* error) {
  if (maxMessageBytes == 0 || maxMessageBytes > maxMessageLimit) {
    *error = "the longest message kept must be 1 to " + std::to_string(maxMessageLimit) +
             " bytes, not " + std::to_string(maxMessageBytes);
    return nullptr;
  }
  FileHeader header{};
  std::memcpy(header.magic, fileMagic, sizeof fileMagic);
  header.version = fileVersion;
  header.headerBytes = headerBytes;
  header.slotBytes = slotBytes;
  header.levels = levelCount;
  header.pid = static_cast<std::uint32_t>(getpid());
  header.maxMessageBytes = maxMessageBytes;
  header.wallAtCreation = Kiln::wallTimeNow();
  header.timeAtCreation = Kiln::System::currentTime();
  std::size_t total = headerBytes;
  for (int level = 0; level < levelCount; ++level) {
    const std::uint32_t kib = sizesKiB[static_cast<std::size_t>(level)];
    if (kib != 0 && (kib < minRegionKiB || kib > maxRegionKiB)) {
      *error = "level " + std::to_string(level) + " size " + std::to_string(kib) +
               " KiB is outside " + std::to_string(minRegionKiB) + " to " +
               std::to_string(maxRegionKiB) + " KiB (0 keeps nothing)";
      return nullptr;
    }
    header.regionOffset[level] = total;
    header.regionBytes[level] = std::uint64_t{kib} * 1024;
    total += header.regionBytes[level];
  }

  // O_EXCL also refuses a symbolic link planted at the path.
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = systemError("cannot create", path, errno);
    return nullptr;
  }
  // Blocks are reserved now: a write into a mapping that the file system
  // cannot back would kill the process with SIGBUS.
  const int reserveError = posix_fallocate(fd, 0, static_cast<off_t>(total));
  void* mapping = MAP_FAILED;
  if (reserveError == 0) {
    mapping = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  const int mapError = errno;
  close(fd);
  if (mapping == MAP_FAILED) {
    *error = reserveError != 0 ? systemError("cannot reserve space for", path, reserveError)
                               : systemError("cannot map", path, mapError);
    unlink(path.c_str());
    return nullptr;
  }
  auto* base = static_cast<unsigned char*>(mapping);
  std::memcpy(base, &header, sizeof header);
  std::unique_ptr<RingWriter> writer(new RingWriter(path, base, total, maxMessageBytes));
  for (int level = 0; level < levelCount; ++level) {
    Region& region = writer->regions_[static_cast<std::size_t>(level)];
    region.offset = header.regionOffset[level];
    region.slots = static_cast<std::uint32_t>(header.regionBytes[level] / slotBytes);
  }
  return writer;
}

RingWriter::RingWriter(std::string path, unsigned char* base, std::size_t bytes,
                       std::uint32_t maxMessageBytes)
    : path_(std::move(path)), base_(base), bytes_(bytes), maxMessageBytes_(maxMessageBytes) {}

RingWriter::~RingWriter() { munmap(base_, bytes_); }

std::size_t RingWriter::messageLimit(int level) const {
  if (level < 0 || level >= levelCount) return 0;
  return messageLimitOf(maxMessageBytes_, std::size_t{regions_[static_cast<std::size_t>(level)].slots} * slotBytes);
}

void RingWriter::append(int level, std::string_view handle, std::string_view file, int line,
                        double time, std::string_view args) {
  if (level < 0 || level >= levelCount) return;
  Region& region = regions_[static_cast<std::size_t>(level)];
  if (region.slots == 0) return;
  handle = cutAt(handle, maxNameBytes);
  file = cutAt(file, maxNameBytes);
  // Args made for this level never come near this; arguments that would
  // not fit the region or the head's size are not kept at all.
  const std::size_t room = std::min(maxArgBytes, std::size_t{region.slots} * slotBytes - sizeof(RecordHead) -
                                                     2 * maxNameBytes);
  const std::string_view kept = args.size() <= room ? args : std::string_view();
  const std::size_t bytes = sizeof(RecordHead) + handle.size() + file.size() + kept.size();

  RecordHead head{};
  head.sequence = nextSequence_++;
  head.time = time;
  head.line = static_cast<std::uint32_t>(line);
  head.slots = static_cast<std::uint16_t>(slotsFor(bytes));
  head.argBytes = static_cast<std::uint16_t>(kept.size());
  head.level = static_cast<std::uint8_t>(level);
  head.handleBytes = static_cast<std::uint8_t>(handle.size());
  head.fileBytes = static_cast<std::uint8_t>(file.size());

  if (region.next + head.slots > region.slots) region.next = 0;
  unsigned char* at = base_ + region.offset + std::size_t{region.next} * slotBytes;
  region.next += head.slots;

  // The magic goes in last, so a record is only seen once it is whole.
  std::memset(at, 0, sizeof head.magic);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  std::memcpy(at + checksumStart, reinterpret_cast<const unsigned char*>(&head) + checksumStart,
              sizeof head - checksumStart);
  unsigned char* text = at + sizeof head;
  std::memcpy(text, handle.data(), handle.size());
  std::memcpy(text + handle.size(), file.data(), file.size());
  std::memcpy(text + handle.size() + file.size(), kept.data(), kept.size());
  head.checksum = checksumOf(at + checksumStart, bytes - checksumStart);
  std::memcpy(at + offsetof(RecordHead, checksum), &head.checksum, sizeof head.checksum);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  std::memcpy(at, &recordMagic, sizeof recordMagic);
}

std::optional<RingContents> readRingFile(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = systemError("cannot open", path, errno);
    return std::nullopt;
  }
  const std::vector<unsigned char> file{std::istreambuf_iterator<char>(in),
                                        std::istreambuf_iterator<char>()};
  FileHeader header{};
  if (file.size() < headerBytes) {
    *error = path + " is too short to be a ring file";
    return std::nullopt;
  }
  std::memcpy(&header, file.data(), sizeof header);
  if (std::memcmp(header.magic, fileMagic, sizeof fileMagic) != 0) {
    *error = path + " is not a ring file";
    return std::nullopt;
  }
  if (header.version != fileVersion || header.headerBytes != headerBytes ||
      header.slotBytes != slotBytes || header.levels != levelCount) {
    *error = path + " is a ring file of another version or machine (version " +
             std::to_string(header.version) + ")";
    return std::nullopt;
  }
  RingContents contents;
  contents.pid = static_cast<int>(header.pid);
  contents.wallAtCreation = header.wallAtCreation;
  contents.timeAtCreation = header.timeAtCreation;
  for (int level = 0; level < levelCount; ++level) {
    const std::uint64_t offset = header.regionOffset[level];
    const std::uint64_t bytes = header.regionBytes[level];
    if (bytes % slotBytes != 0 || offset < headerBytes || bytes > file.size() ||
        offset > file.size() - bytes) {
      *error = path + ": the region of level " + std::to_string(level) +
               " lies outside the file (is it cut short?)";
      return std::nullopt;
    }
    const std::size_t slots = bytes / slotBytes;
    const std::size_t messageLimit = messageLimitOf(header.maxMessageBytes, bytes);
    for (std::size_t slot = 0; slot < slots;) {
      const unsigned char* at = file.data() + offset + slot * slotBytes;
      std::size_t taken = 1;
      auto record = slot * slotBytes + sizeof(RecordHead) <= bytes
                        ? recordAt(at, slots - slot, level, messageLimit, &taken)
                        : std::nullopt;
      slot += record ? taken : 1;
      if (!record) continue;
      contents.records.push_back(std::move(*record));
    }
  }
  std::sort(contents.records.begin(), contents.records.end(),
            [](const Record& a, const Record& b) { return a.sequence < b.sequence; });
  return contents;
}

std::string traceLine(double wallTime, std::string_view handle, int level,
                      std::string_view file, int line, std::string_view message) {
  std::string text = Kiln::wallTimeText(wallTime);
  text += ' ';
  text += handle;
  text += ' ';
  text += std::to_string(level);
  text += ' ';
  text += file;
  text += ':';
  text += std::to_string(line);
  text += ' ';
  text += message;
  if (text.back() != '\n') text += '\n';
  return text;
}

}  // namespace RingTape
