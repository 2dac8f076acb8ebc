// Another program run to its end, with what it printed.
//
// One thread.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace Vorn {

struct Ended {
    int code = 0;  ///< exit status; 128 and the signal's number where one ended it
    std::string out;
    std::string err;
    bool isTimedOut = false;  ///< killed, as it took too long
};

/// Runs a program, found in PATH unless it is a path; stdin is empty. Throws std::system_error
/// where it cannot be started.
Ended runProgram(const std::vector<std::string>& command, std::chrono::seconds most);

/// A program of this installation: beside this one's executable, else by its name in PATH.
std::string siblingProgram(const std::string& name);
/// This program's own executable.
std::string ownProgram();

}  // namespace Vorn
