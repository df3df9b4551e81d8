// Kiln::LogHandle and Kiln::log: operator-visible log messages.
//
// A log message is an event that an operator must be able to see, look up and
// act on, as opposed to a trace, which is for the developer. Every message
// has a LogHandle, built once at static start-up, that carries its identifier
// (KXT_...), its severity, its format with one "%s" per argument, and the
// explanation and recommended action that the catalogue shows. Every handle
// registers itself, so the whole catalogue can be listed (LogHandle::catalogue,
// printLogCatalogue).
//
// Kiln::log(handle, args...) turns each argument into text with its
// operator<<, puts the texts into the format in order and, when the handle's
// rate limit admits it, emits one line:
//   - to syslog, with the handle's severity, as "<IDENTIFIER>: <message>";
//   - to standard error (or the stream given to logStreamIs), as
//     "<time> <IDENTIFIER> <severity>: <message>", where <time> is UTC wall
//     time "YYYY-MM-DDTHH:MM:SS.uuuuuuZ" and <severity> the word of
//     severityName ("error", "warning", "informational", ...).
// A message is always one line: control characters in argument texts are
// written as escapes ("\n", "\x1b"). A format and an argument count that
// disagree never read past the arguments: a placeholder without an argument
// prints "<missing>", and arguments without a placeholder are appended as
// " <extra: a, b>", so the mistake is visible in the log itself.
//
// Rate limiting. The three trailing constructor values are:
//   rateInterval (seconds)  0 or less: no limit at all. Otherwise each rate
//                           key may send `rateBurst` messages at once and is
//                           then refilled at rateBurst messages per
//                           rateInterval (a token bucket);
//   rateBurst (messages)    the bucket size; values below 1 count as 1;
//   rateKeyArgs             how many leading arguments form the rate key: 0
//                           gives the handle one bucket, 1 gives each
//                           distinct first argument (such as a switch name)
//                           its own, and so on.
// A handle built with 0.0, 1.0, 0 never suppresses anything. When messages of
// a key were suppressed, the next one that goes out says how many with
// " (N similar messages suppressed)". Time is Kiln::System::currentTime(), so
// tests drive the limits with a SimulatedTimeSource. The limit state belongs
// to the handle object: two source units that each hold a handle with the
// same identifier are limited separately.
//
// Single-threaded, like the rest of the runtime.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Kiln {

// The numbering is syslog's, so the value is the syslog priority.
enum class LogSeverity : std::uint8_t {
  emergency = 0,
  alert = 1,
  critical = 2,
  error = 3,
  warning = 4,
  notice = 5,
  informational = 6,
  debug = 7,
};

const char* severityName(LogSeverity severity);

// The texts of one message's arguments, in order.
class LogString {
 public:
  template <typename T>
  void append(const T& value) {
    std::ostringstream text;
    text << value;
    appendText(text.str());
  }
  void append(const char* value) { appendText(value ? value : "(null)"); }
  void append(bool value) { appendText(value ? "true" : "false"); }

  std::size_t size() const { return values_.size(); }
  const std::string& operator[](std::size_t i) const { return values_[i]; }

 private:
  void appendText(std::string_view text);
  std::vector<std::string> values_;
};

class LogHandle {
 public:
  LogHandle(const char* identifier, LogSeverity severity, const char* format,
            const char* explanation, const char* recommendedAction, double rateInterval,
            double rateBurst, std::uint8_t rateKeyArgs);
  ~LogHandle();
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  const std::string& identifier() const { return identifier_; }
  LogSeverity severity() const { return severity_; }
  const std::string& format() const { return format_; }
  const std::string& explanation() const { return explanation_; }
  const std::string& recommendedAction() const { return recommendedAction_; }
  double rateInterval() const { return rateInterval_; }
  double rateBurst() const { return rateBurst_; }
  std::uint8_t rateKeyArgs() const { return rateKeyArgs_; }
  std::size_t placeholderCount() const { return literals_.size() - 1; }

  // The format with the arguments put in, without time or identifier.
  std::string message(const LogString& args) const;

  // Whether a message with these arguments may go out now. An admitted
  // message uses up its share of the limit; *suppressed (when given)
  // receives the number of messages of the same key refused since the last
  // admitted one.
  bool okToLog(const LogString& args, std::uint64_t* suppressed = nullptr);

  // Every live handle, in the order of construction.
  static std::vector<const LogHandle*> all();
  // One handle per identifier, in identifier order.
  static std::vector<const LogHandle*> catalogue();

 private:
  struct Bucket {
    double tokens;
    double updated;
    std::uint64_t suppressed;
  };
  std::string rateKey(const LogString& args) const;
  void forgetIdleBuckets(double now);

  std::string identifier_;
  LogSeverity severity_;
  std::string format_;
  std::string explanation_;
  std::string recommendedAction_;
  double rateInterval_;
  double rateBurst_;
  std::uint8_t rateKeyArgs_;
  // The format split at its placeholders, "%%" already turned into "%".
  std::vector<std::string> literals_;
  std::map<std::string, Bucket> buckets_;
  std::size_t forgetAt_;
};

// Formats and emits one message; see the contract at the top.
void log(LogHandle& handle, const LogString& args);

template <typename... Args>
void log(LogHandle& handle, const Args&... args) {
  LogString text;
  (text.append(args), ...);
  log(handle, text);
}

// Output controls, for tests and tools. Syslog is on by default; the stream
// is std::cerr when none (nullptr) is given. The caller keeps ownership of
// the stream and must keep it alive while it is installed.
void logSyslogIs(bool enabled);
void logStreamIs(std::ostream* stream);

// The catalogue, one block per identifier, for documentation and --help.
void printLogCatalogue(std::ostream& out);

// Wall-clock time, shared by log lines and trace lines.
double wallTimeNow();
std::string wallTimeText(double secondsSinceEpoch);

}  // namespace Kiln
