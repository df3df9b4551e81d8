// ringtape-dump: prints the records of a ring trace file, oldest first.
//
// For reading what an agent was doing, also one that crashed or is still
// running. One line per record, in the form of the trace stream, after one
// summary line that starts with '#'. Exit status: 0 when the file was read,
// 1 when it is not a readable ring file, 2 on a usage error.
#include <iostream>
#include <string>

#include "CommandLine.h"
#include "Kiln/Log.h"
#include "RingTape/RingFile.h"

int main(int argc, char** argv) {
  CLI::App app(
      "Prints the trace records kept in a ring file in the order they were written,\n"
      "one per line: <UTC time> <handle> <level> <file>:<line> <message>",
      "ringtape-dump");
  VgwCommandLine::prepare(app, VGW_VERSION);
  std::string file;
  VgwCommandLine::addPositional(app, "FILE", file, "the ring file (for an agent: $RINGTAPEDIR/Vgw.tape)")
      ->required()
      ->check(VgwCommandLine::nonEmpty);
  app.footer("Exit status: 0 the file was read; 1 it is not a readable ring file; 2 a usage error.");
  if (const auto status = VgwCommandLine::parse(app, argc, argv)) return *status;
  std::string error;
  const auto contents = RingTape::readRingFile(file, &error);
  if (!contents) {
    std::cerr << "ringtape-dump: " << error << '\n';
    return 1;
  }
  std::cout << "# " << file << ": process " << contents->pid << ", created "
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
