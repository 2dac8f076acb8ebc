// A small system's files, what is in them, and the ways in which they are read: what rots is
// compared with what was there.
//
// One thread. The files lie in a folder of their own; every examination mounts, reads and lets go.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/asic/Versions.h"
#include "tests/support/TempDir.h"

namespace Rot {

inline constexpr Asic::UnitId kUnit{1};

/// The files below a folder by relative path.
using Image = std::map<std::string, std::string>;

/// What was read, by what it is, and what was reported meanwhile.
struct Findings {
    std::map<std::string, std::string> values;
    std::vector<std::string> reports;
    bool isBusy = false;  ///< something was said to be in the middle of a store, and stayed so
};

class Specimen {
public:
    /// Makes the files: of each table the change log and a configuration with live values and
    /// values in deletion, those of the resource tables, announcements and acknowledgements.
    Specimen();

    const std::string& folder() const { return folder_; }
    const Image& image() const { return image_; }
    /// Brings every file back as it was, and takes away what is there besides; with a table's name,
    /// only in the folders of its files and of the group's.
    void restore(const std::string& onlyTable = {}) const;
    /// Whether the files are as they were made, and there are no others.
    bool isWhole() const;

    // Each reads everything that there is to read in one way.

    /// By the readers' classes, which change nothing and see one file each: of all files, or of
    /// that one.
    Findings asReaders(const std::string& only = {}) const;
    /// By the hardware side, beginning with what is acknowledged, or from the first announcement.
    Findings asHardware(bool isAcknowledged) const;
    /// By the agent's tables, which take the files up and then go on working. Ends the process when
    /// what always holds does not. `meanwhile` happens when they are mounted.
    /// With `onlyTable`, they are that table's.
    Findings asWriter(const std::function<void()>& meanwhile = {},
                      const std::string& onlyTable = {}) const;

    /// The name of the table that a file belongs to; empty for those of the group.
    static std::string tableOf(const std::string& file);

private:
    /// What a table and the group have.
    struct Part {
        std::set<std::string> folders;
        std::vector<std::string> files;
    };
    TestSupport::TempDir directory_;
    std::string folder_;
    Image image_;
    std::map<std::string, Part> parts_;  ///< by table
};

/// What is wrong with findings in damaged files, or empty: each value is the one that was there;
/// one that is missing was reported, and a report names the file.
std::string defectOf(const Findings& found, const Findings& whole, const std::string& file);

/// VORN_TORTURE=full asks for the long run.
bool isLongRun();

}  // namespace Rot
