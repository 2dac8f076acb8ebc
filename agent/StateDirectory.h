// The directory in which the agent keeps everything that outlives it.
#pragma once

#include <stdexcept>
#include <string>

namespace Agent {

/// Path and reason.
class StateDirectoryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where the agent answers requests.
inline std::string controlSocketIn(const std::string& stateDirectory) {
    return stateDirectory + "/agent.sock";
}

/// Throws StateDirectoryError unless the path is a directory of this process's user that it can
/// write to, and short enough for the sockets in it. Changes nothing.
void checkStateDirectory(const std::string& path);

}  // namespace Agent
