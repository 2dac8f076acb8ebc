// A program run by a test: started, signalled, waited for, its output kept.
//
// One thread. A program that still runs when the object goes is killed.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"

namespace TestSupport {

/// How long anything may take on a busy machine with sanitizers.
inline constexpr std::chrono::seconds kDeadline{60};

/// Asks again until the condition holds; false when it does not within the deadline.
bool until(const std::function<bool()>& condition);

class RealProcess {
public:
    /// The first word is the program's path. Throws std::system_error.
    explicit RealProcess(const std::vector<std::string>& words);
    RealProcess(const RealProcess&) = delete;
    RealProcess& operator=(const RealProcess&) = delete;
    ~RealProcess();

    pid_t pid() const { return pid_; }
    void signal(int number) const;
    bool running();
    /// The exit status; 128 and the signal's number when one ended it; -1 after the deadline.
    int wait();
    int endedBy(int number) {
        signal(number);
        return wait();
    }

    std::string standardOutput() const;
    std::string standardError() const;
    std::vector<std::string> errorLines() const;

private:
    TempDir directory_;
    pid_t pid_ = -1;
    std::optional<int> status_;
};

/// Runs a program to its end.
struct Ended {
    int status = -1;
    std::string standardOutput;
    std::vector<std::string> errorLines;
};
Ended runToEnd(const std::vector<std::string>& words);

}  // namespace TestSupport
