// ringtape-dump: prints the records of a ring trace file, oldest first.
//
// For reading what an agent was doing, also one that crashed or is still
// running. One line per record, in the form of the trace stream, after one
// summary line that starts with '#'. Exit status: 0 when the file was read,
// 1 when it is not a readable ring file, 2 on a usage error.
#include <cstring>
#include <iostream>
#include <string>

#include "Kiln/Log.h"
#include "RingTape/RingFile.h"

namespace {

constexpr const char* usage =
    "usage: ringtape-dump FILE\n"
    "Prints the trace records kept in the ring file FILE in the order they were\n"
    "written, one per line: <UTC time> <handle> <level> <file>:<line> <message>\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
    std::cout << usage;
    return 0;
  }
  if (argc != 2) {
    std::cerr << usage;
    return 2;
  }
  std::string error;
  const auto contents = RingTape::readRingFile(argv[1], &error);
  if (!contents) {
    std::cerr << "ringtape-dump: " << error << '\n';
    return 1;
  }
  std::cout << "# " << argv[1] << ": process " << contents->pid << ", created "
            << Kiln::wallTimeText(contents->wallAtCreation) << ", "
            << contents->records.size() << " records\n";
  for (const RingTape::Record& record : contents->records) {
    std::string message = record.message;
    if (record.truncated) message += " [truncated]";
    std::cout << RingTape::traceLine(contents->wallTime(record.time), record.handle,
                                     record.level, record.file, record.line, message);
  }
  return std::cout.flush() ? 0 : 1;
}
