// What is killed: how it is mounted from its files, and what can be told of it afterwards.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Torture {

inline constexpr const char* kSystem = "torture";

class Subject {
public:
    virtual ~Subject() = default;
    /// Everything that a user of the files can tell, but for what may differ without harm.
    virtual std::string state() = 0;
    /// Goes on working; ends the process when what always holds does not.
    virtual void use() = 0;
};

/// What readers find in files that nobody has mounted since their writer was killed.
struct Sight {
    std::uint64_t published = 0;
    std::string wrong;             ///< what no reader may meet
    std::set<std::string> absent;  ///< keys that are said not to be there
};

struct Scenario {
    std::string name;
    /// Mounts what lies below the folder, making it the first time. This is the recovery.
    std::function<std::unique_ptr<Subject>(const std::string& folder)> mount;
    std::function<void(Subject&)> prepare;
    std::function<void(Subject&)> change;
    /// What readers find; of versions up to `reclaimed` the records may be gone.
    std::function<Sight(const std::string& folder, std::uint64_t reclaimed)> read;
    bool isMount = false;            ///< the change is a mount, as is its recovery
    bool leavesStateAsItIs = false;  ///< a mount that only tells of something
};

std::vector<Scenario> entryLogScenarios();
std::vector<Scenario> resourceScenarios();
std::vector<Scenario> groupScenarios();

}  // namespace Torture
