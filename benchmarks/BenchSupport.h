// What the end-to-end benchmarks share: monotonic stamps, turning the
// agent's event loop until something happened, the process's resident and
// peak memory, whole-number options, the agent started in-process from the
// example configuration as vgw-agent starts it, and the table of runs with
// their median and spread.
//
// Everything reports failure by throwing Failure, which the benchmark's main
// turns into its message and status 1.
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Hearth/AgentRunner.h"
#include "Kiln/EventLoop.h"
#include "OvsdbServer.h"
#include "Vgw/VgwAgent.h"

namespace Vgw::Bench {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// CLOCK_MONOTONIC, which processes on one machine share.
inline std::int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

inline double msBetween(std::int64_t from, std::int64_t to) { return static_cast<double>(to - from) / 1e6; }

// Turns the current event loop until `done` holds; throws naming `what`
// when `limit` seconds pass first.
inline void turnUntil(double limit, const std::string& what, const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(limit);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw Failure(what + " did not happen within " + std::to_string(static_cast<int>(limit)) + " s");
    }
    Kiln::EventLoop::current().runOnce(0.002);
  }
}

// A line of /proc/self/status ("VmRSS:", "VmHWM:"), in KiB.
inline long statusKib(const char* field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field)) return std::stol(line.substr(std::strlen(field)));
  }
  throw Failure(std::string("no ") + field + " in /proc/self/status");
}

// Starts the high-water mark over from the present resident size.
inline void resetPeakRss() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  clear.flush();
  if (!clear.good()) throw Failure("cannot reset the peak RSS through /proc/self/clear_refs");
}

// The value of a whole-number option; std::invalid_argument when it is not
// one from `least` to `most`.
inline std::uint32_t wholeNumber(const char* option, const char* value, std::uint32_t least, std::uint32_t most) {
  char* end = nullptr;
  errno = 0;
  const unsigned long n = std::strtoul(value, &end, 10);
  if (!*value || *end || errno || n < least || n > most) {
    throw std::invalid_argument(std::string(option) + " wants a whole number from " + std::to_string(least) + " to " +
                                std::to_string(most) + ", not '" + value + "'");
  }
  return static_cast<std::uint32_t>(n);
}

// Starts the agent on `runner` from the configuration file at `configPath`,
// pointed at the database of `server`, with every path it mounts typed.
inline Kiln::Ptr<Agent> startAgent(Hearth::AgentRunner& runner, const Test::OvsdbServer& server,
                                   const char* configPath) {
  Ledger::EntityManager& store = *runner.localEntityManager();
  for (const auto* mounts : {&localMounts(), &serviceMounts()}) {
    for (const Ledger::Mount& m : *mounts) {
      store.pathTypeIs(m.path.stringValue(), *Kiln::TypeInfo::find(m.typeName.stringValue()));
    }
  }
  std::ifstream file(configPath);
  if (!file) throw Failure("cannot read " + std::string(configPath));
  Kiln::Json document = Kiln::Json::parse(std::string(std::istreambuf_iterator<char>(file), {}));
  document["vgw/config"]["ovsdbSocketPath"] = server.socketPath();
  store.loadDocument(document);
  return Kiln::staticPtrCast<Agent>(runner.agentIs(agentFactory));
}

// The measures of every run, printed one run a line and then their median,
// smallest and largest. A column shows `decimals` places, two for ratios.
class RunTable {
 public:
  struct Column {
    const char* title;
    int decimals;
  };
  explicit RunTable(std::vector<Column> columns) : columns_(std::move(columns)) {}

  void add(std::vector<double> sample) { samples_.push_back(std::move(sample)); }

  void print() const {
    std::printf("%-7s", "run");
    for (const Column& column : columns_) std::printf(" %s", column.title);
    std::printf("\n");
    for (std::size_t run = 0; run < samples_.size(); ++run) printRow(std::to_string(run + 1), samples_[run]);
    std::vector<double> median(columns_.size());
    std::vector<double> low(columns_.size());
    std::vector<double> high(columns_.size());
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      std::vector<double> values;
      for (const std::vector<double>& sample : samples_) values.push_back(sample.at(i));
      std::sort(values.begin(), values.end());
      const std::size_t mid = values.size() / 2;
      median[i] = values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
      low[i] = values.front();
      high[i] = values.back();
    }
    printRow("median", median);
    printRow("min", low);
    printRow("max", high);
  }

 private:
  void printRow(const std::string& label, const std::vector<double>& values) const {
    std::printf("%-7s", label.c_str());
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      std::printf(" %*.*f", static_cast<int>(std::strlen(columns_[i].title)), columns_[i].decimals, values.at(i));
    }
    std::printf("\n");
  }

  std::vector<Column> columns_;
  std::vector<std::vector<double>> samples_;
};

// A benchmark's main: options that parse() refuses end it with status 2
// and a hint, a failure of run() with its message and status 1.
template <class Options>
int benchMain(const char* name, int argc, char** argv, Options (*parse)(int, char**), int (*run)(const Options&)) {
  Options options;
  try {
    options = parse(argc, argv);
  } catch (const std::invalid_argument& e) {
    std::cerr << name << ": " << e.what() << "\nTry '" << name << " --help'.\n";
    return 2;
  }
  try {
    return run(options);
  } catch (const std::exception& e) {
    std::cerr << name << ": FAILED: " << e.what() << '\n';
    return 1;
  }
}

}  // namespace Vgw::Bench
