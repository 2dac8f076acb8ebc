// What an operator has to know without asking: each alarm is raised and cleared with a trace at
// level 1, and shown until it is cleared.
//
// Event thread only.
//
// What always holds:
//  1. An alarm is raised when its value goes above its limit, and cleared when it is at or below
//     its clear value, which is lower: what hovers around a limit does not flap.
//  2. Values are those of the last look.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/AlarmLimits.h"
#include "agent/Backlog.h"
#include "agent/Tables.h"

namespace Agent {

using Json = nlohmann::ordered_json;

struct Alarm {
    std::string_view name;
    std::string subject;  ///< a table, a pool; empty where there is only one
    std::string_view unit;
    double limit = 0;
    double clear = 0;
    double value = 0;
    bool raised = false;
    double sinceTime = 0;  ///< of the last change of `raised`, seconds since 1970; 0 before it
};

class Alarms {
public:
    explicit Alarms(const AlarmLimits& limits);

    void look(const Tables& tables, const Backlog& backlog);
    /// One of the values that look() finds. REQUIRES: there is an alarm of that name and subject.
    void valueIs(std::string_view name, std::string_view subject, double value);
    const std::vector<Alarm>& all() const { return alarms_; }
    std::size_t raised() const;
    /// {"alarms": [...]}.
    Json json() const;

private:
    std::vector<Alarm> alarms_;
};

}  // namespace Agent
