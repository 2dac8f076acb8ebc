// A table's changes as they are published.
//
// One thread an object; any process. A change log keeps a record until hardware has acknowledged
// the change, which may be before anybody has looked.
//
// What always holds:
//  1. Every version from the first one on comes once, the lowest first.
//  2. A version whose record is gone is told by the value that it wrote; where that was replaced as
//     well, as lost.
#pragma once

#include <map>
#include <memory>
#include <optional>

#include "inspect/State.h"

namespace Inspect {

class LogFollower {
public:
    /// `from`: the first version; nothing: the oldest that is kept at the first look. `state` has
    /// to stay.
    LogFollower(const State& state, Table table, std::optional<std::uint64_t> from);

    /// Takes what has been published meanwhile into the sight of next(). False where that is
    /// nothing new.
    bool look(const Report& report);
    /// The next change in sight; nothing where there is none.
    std::optional<Change> next(const Report& report);
    /// The newest version that look() has seen.
    std::uint64_t newest() const { return inSight_; }

private:
    class Log;
    template <class Types>
    class TypedLog;

    /// What the values say of versions in sight whose records are gone.
    const std::map<std::uint64_t, Change>& fromValues(const Report& report);
    void begunAnew(std::uint64_t published, const Report& report);

    const State& state_;
    Table table_;
    std::shared_ptr<Log> log_;
    std::optional<std::uint64_t> next_;
    std::uint64_t inSight_ = 0;
    std::optional<std::map<std::uint64_t, Change>> fromValues_;  ///< of this sight
};

}  // namespace Inspect
