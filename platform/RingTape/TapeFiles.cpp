#include "RingTape/TapeFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace RingTape {
namespace {

constexpr std::string_view asideSuffix = ".prev";

// Whether name is the template with a number for each "%d"; *pid gets the
// first of them, or -1 when the template has none.
bool matchesTemplate(std::string_view nameTemplate, std::string_view name, long* pid) {
  *pid = -1;
  std::size_t j = 0;
  for (std::size_t i = 0; i < nameTemplate.size();) {
    if (nameTemplate.substr(i, 2) == "%d") {
      const std::size_t start = j;
      while (j < name.size() && std::isdigit(static_cast<unsigned char>(name[j]))) ++j;
      if (j == start || j - start > 10) return false;
      if (*pid < 0) *pid = std::strtol(std::string(name.substr(start, j - start)).c_str(), nullptr, 10);
      i += 2;
    } else {
      if (j >= name.size() || name[j] != nameTemplate[i]) return false;
      ++i;
      ++j;
    }
  }
  return j == name.size();
}

bool processRuns(long pid) {
  return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

}  // namespace

std::string tapeDirectory() {
  const char* dir = std::getenv("RINGTAPEDIR");
  return dir && *dir ? dir : "/tmp";
}

std::string expandTapeName(std::string_view nameTemplate, int pid) {
  std::string name;
  for (std::size_t i = 0; i < nameTemplate.size(); ++i) {
    if (nameTemplate.substr(i, 2) == "%d") {
      name += std::to_string(pid);
      ++i;
    } else {
      name += nameTemplate[i];
    }
  }
  return name;
}

bool setAside(const std::string& path, std::string* error) {
  const std::string aside = path + std::string(asideSuffix);
  if (rename(path.c_str(), aside.c_str()) != 0) {
    if (errno == ENOENT) return true;
    *error = "cannot set " + path + " aside: " + std::strerror(errno);
    return false;
  }
  utimensat(AT_FDCWD, aside.c_str(), nullptr, 0);
  return true;
}

bool linkTape(const std::string& dir, const std::string& link, const std::string& file,
              std::string* error) {
  const std::string linkPath = dir + "/" + link;
  struct stat st {};
  if (lstat(linkPath.c_str(), &st) == 0) {
    if (!S_ISLNK(st.st_mode)) {
      *error = linkPath + " exists and is not a symbolic link; it is left alone";
      return false;
    }
    unlink(linkPath.c_str());
  }
  if (symlink(file.c_str(), linkPath.c_str()) != 0) {
    *error = "cannot link " + linkPath + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

std::vector<std::string> removeOldTapes(const std::string& dir, std::string_view nameTemplate,
                                        const std::string& ownFile, int keep,
                                        int maxAgeHours) {
  std::vector<std::string> removed;
  if (maxAgeHours < 0) return removed;
  std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(dir.c_str()), closedir);
  if (!listing) return removed;

  struct Tape {
    std::string path;
    std::time_t modified;
    long pid;
  };
  std::vector<Tape> tapes;
  while (const dirent* entry = readdir(listing.get())) {
    const std::string_view name = entry->d_name;
    if (name == ownFile) continue;
    const bool aside = name.ends_with(asideSuffix);
    long pid = -1;
    if (!matchesTemplate(nameTemplate, aside ? name.substr(0, name.size() - asideSuffix.size()) : name,
                         &pid)) {
      continue;
    }
    Tape tape{dir + "/" + std::string(name), 0, aside ? -1 : pid};
    struct stat st {};
    if (lstat(tape.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    tape.modified = st.st_mtime;
    tapes.push_back(std::move(tape));
  }
  std::sort(tapes.begin(), tapes.end(),
            [](const Tape& a, const Tape& b) { return a.modified > b.modified; });

  const std::time_t oldest = std::time(nullptr) - std::time_t{maxAgeHours} * 3600;
  for (std::size_t i = static_cast<std::size_t>(std::max(keep, 0)); i < tapes.size(); ++i) {
    const Tape& tape = tapes[i];
    if (tape.modified >= oldest || (tape.pid > 0 && processRuns(tape.pid))) continue;
    if (unlink(tape.path.c_str()) == 0) removed.push_back(tape.path);
  }
  return removed;
}

}  // namespace RingTape
