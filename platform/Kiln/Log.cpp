#include "Kiln/Log.h"

#include <syslog.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <iterator>

#include "Kiln/System.h"

namespace Kiln {
namespace {

// Buckets are dropped again once a handle holds more than this many keys and
// a bucket is full with nothing suppressed: such a bucket says no more than
// a fresh one would.
constexpr std::size_t bucketsKeptWhenIdle = 256;

struct Output {
  bool syslog = true;
  std::ostream* stream = nullptr;
};
Output output;

// Never destroyed, so that handles of other units may unregister during
// static destruction in any order.
std::vector<LogHandle*>& registry() {
  static auto* handles = new std::vector<LogHandle*>;
  return *handles;
}

std::vector<std::string> splitFormat(std::string_view format) {
  std::vector<std::string> literals(1);
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && i + 1 < format.size()) {
      if (format[i + 1] == 's') {
        literals.emplace_back();
        ++i;
        continue;
      }
      if (format[i + 1] == '%') {
        literals.back() += '%';
        ++i;
        continue;
      }
    }
    literals.back() += format[i];
  }
  return literals;
}

}  // namespace

const char* severityName(LogSeverity severity) {
  static constexpr const char* names[] = {"emergency", "alert",  "critical",      "error",
                                          "warning",   "notice", "informational", "debug"};
  const auto index = static_cast<std::size_t>(severity);
  return index < std::size(names) ? names[index] : "unknown";
}

void LogString::appendText(std::string_view text) {
  std::string value;
  value.reserve(text.size());
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      value += c;
    } else if (c == '\n') {
      value += "\\n";
    } else if (c == '\r') {
      value += "\\r";
    } else if (c == '\t') {
      value += "\\t";
    } else {
      char escape[5];
      std::snprintf(escape, sizeof escape, "\\x%02x", byte);
      value += escape;
    }
  }
  values_.push_back(std::move(value));
}

LogHandle::LogHandle(const char* identifier, LogSeverity severity, const char* format,
                     const char* explanation, const char* recommendedAction,
                     double rateInterval, double rateBurst, std::uint8_t rateKeyArgs)
    : identifier_(identifier ? identifier : ""),
      severity_(severity),
      format_(format ? format : ""),
      explanation_(explanation ? explanation : ""),
      recommendedAction_(recommendedAction ? recommendedAction : ""),
      rateInterval_(rateInterval),
      rateBurst_(std::max(rateBurst, 1.0)),
      rateKeyArgs_(rateKeyArgs),
      literals_(splitFormat(format_)),
      forgetAt_(bucketsKeptWhenIdle) {
  registry().push_back(this);
}

LogHandle::~LogHandle() {
  auto& handles = registry();
  handles.erase(std::remove(handles.begin(), handles.end(), this), handles.end());
}

std::string LogHandle::message(const LogString& args) const {
  std::string text = literals_[0];
  for (std::size_t i = 1; i < literals_.size(); ++i) {
    text += i - 1 < args.size() ? args[i - 1] : std::string("<missing>");
    text += literals_[i];
  }
  if (args.size() > placeholderCount()) {
    text += " <extra: ";
    for (std::size_t i = placeholderCount(); i < args.size(); ++i) {
      if (i > placeholderCount()) text += ", ";
      text += args[i];
    }
    text += '>';
  }
  return text;
}

std::string LogHandle::rateKey(const LogString& args) const {
  std::string key;
  const std::size_t count = std::min<std::size_t>(rateKeyArgs_, args.size());
  for (std::size_t i = 0; i < count; ++i) {
    key += args[i];
    key += '\x1f';
  }
  return key;
}

void LogHandle::forgetIdleBuckets(double now) {
  const double refillRate = rateBurst_ / rateInterval_;
  std::erase_if(buckets_, [&](const auto& entry) {
    const Bucket& b = entry.second;
    return b.suppressed == 0 && b.tokens + (now - b.updated) * refillRate >= rateBurst_;
  });
  // Many keys that all stay busy would otherwise make every call walk them.
  forgetAt_ = std::max(bucketsKeptWhenIdle, 2 * buckets_.size());
}

bool LogHandle::okToLog(const LogString& args, std::uint64_t* suppressed) {
  if (suppressed) *suppressed = 0;
  if (!(rateInterval_ > 0.0)) return true;
  const double now = System::currentTime();
  if (buckets_.size() > forgetAt_) forgetIdleBuckets(now);
  auto [it, fresh] = buckets_.try_emplace(rateKey(args), Bucket{rateBurst_, now, 0});
  Bucket& bucket = it->second;
  if (!fresh) {
    bucket.tokens = std::min(
        rateBurst_, bucket.tokens + (now - bucket.updated) * rateBurst_ / rateInterval_);
    bucket.updated = now;
  }
  // The tolerance keeps a refill of exactly one interval from falling short
  // through rounding.
  if (bucket.tokens < 1.0 - 1e-9) {
    ++bucket.suppressed;
    return false;
  }
  bucket.tokens = std::max(0.0, bucket.tokens - 1.0);
  if (suppressed) *suppressed = bucket.suppressed;
  bucket.suppressed = 0;
  return true;
}

std::vector<const LogHandle*> LogHandle::all() {
  return {registry().begin(), registry().end()};
}

std::vector<const LogHandle*> LogHandle::catalogue() {
  std::vector<const LogHandle*> handles = all();
  std::stable_sort(handles.begin(), handles.end(), [](const LogHandle* a, const LogHandle* b) {
    return a->identifier() < b->identifier();
  });
  handles.erase(std::unique(handles.begin(), handles.end(),
                            [](const LogHandle* a, const LogHandle* b) {
                              return a->identifier() == b->identifier();
                            }),
                handles.end());
  return handles;
}

void log(LogHandle& handle, const LogString& args) {
  std::uint64_t suppressed = 0;
  if (!handle.okToLog(args, &suppressed)) return;
  std::string text = handle.message(args);
  if (suppressed > 0) {
    text += " (" + std::to_string(suppressed) + " similar messages suppressed)";
  }
  if (output.syslog) {
    syslog(static_cast<int>(handle.severity()), "%s: %s", handle.identifier().c_str(),
           text.c_str());
  }
  std::ostream& out = output.stream ? *output.stream : std::cerr;
  out << wallTimeText(wallTimeNow()) << ' ' << handle.identifier() << ' '
      << severityName(handle.severity()) << ": " << text << '\n'
      << std::flush;
}

void logSyslogIs(bool enabled) { output.syslog = enabled; }

void logStreamIs(std::ostream* stream) { output.stream = stream; }

void printLogCatalogue(std::ostream& out) {
  for (const LogHandle* handle : LogHandle::catalogue()) {
    out << handle->identifier() << " (" << severityName(handle->severity()) << ")\n"
        << "  Format: " << handle->format() << '\n'
        << "  Explanation: " << handle->explanation() << '\n'
        << "  Recommended action: "
        << (handle->recommendedAction().empty() ? "none" : handle->recommendedAction())
        << "\n\n";
  }
}

double wallTimeNow() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::string wallTimeText(double secondsSinceEpoch) {
  double whole = std::floor(secondsSinceEpoch);
  long micros = std::lround((secondsSinceEpoch - whole) * 1e6);
  if (micros >= 1000000) {
    whole += 1.0;
    micros -= 1000000;
  }
  const auto seconds = static_cast<std::time_t>(whole);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[96];  // room for any year the types can hold
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, micros);
  return text;
}

}  // namespace Kiln
