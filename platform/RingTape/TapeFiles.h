// Where ring files live, and how earlier ones are set aside and cleared.
//
// A tape is named from a template such as "Vgw-%d.tape", in which every
// "%d" stands for the process id; the tapes of one template form a family:
// the tapes of other processes, and copies set aside with the suffix
// ".prev". These functions touch only files of the family, in one
// directory, and never follow a name that is not theirs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace RingTape {

// RINGTAPEDIR, or /tmp when that is unset or empty.
std::string tapeDirectory();

std::string expandTapeName(std::string_view nameTemplate, int pid);

// Renames path to path + ".prev", replacing an earlier copy, and gives it
// the present modification time, so that it ages from being set aside.
// Nothing to do when path does not exist. false with *error on failure.
bool setAside(const std::string& path, std::string* error);

// Makes dir/link a symbolic link to the tape file (a name in dir). An
// earlier link is replaced; anything else of that name is left alone and
// reported in *error.
bool linkTape(const std::string& dir, const std::string& link, const std::string& file,
              std::string* error);

// Removes the tapes of the family of nameTemplate in dir that were last
// modified more than maxAgeHours ago, except ownFile, the keep newest of the
// others, and the tapes of processes that still run. A negative maxAgeHours
// removes nothing. Returns the paths removed.
std::vector<std::string> removeOldTapes(const std::string& dir, std::string_view nameTemplate,
                                        const std::string& ownFile, int keep,
                                        int maxAgeHours);

}  // namespace RingTape
