// Records, and values in place of records that are gone.
#include "inspect/Follow.h"

#include <fmt/format.h>

#include "inspect/Readers.h"

namespace Inspect {

/// The log's file, opened again when another has taken its place.
class LogFollower::Log {
public:
    virtual ~Log() = default;

    /// The newest version; nothing where there is no log.
    virtual std::optional<std::uint64_t> published() = 0;
    virtual std::optional<Change> find(std::uint64_t version) = 0;
    virtual std::string file() const = 0;
};

template <class Types>
class LogFollower::TypedLog final : public LogFollower::Log {
public:
    TypedLog(const State& state, Table table) : state_(state), table_(table) {}

    std::optional<std::uint64_t> published() override {
        if (log_ && log_->stale())
            log_.reset();
        if (!log_)
            log_ = openChangeLog<Types>(state_.group());
        return log_ ? std::optional(log_->scratchpad()) : std::nullopt;
    }
    std::optional<Change> find(std::uint64_t version) override {
        const auto record = patiently([&] { return log_->find(version); });
        return record ? std::optional(changeOf<Types>(table_, *record)) : std::nullopt;
    }
    std::string file() const override { return log_->file(); }

private:
    const State& state_;
    Table table_;
    std::optional<ChangeLog<Types>> log_;
};

LogFollower::LogFollower(const State& state, Table table, std::optional<std::uint64_t> from)
    : state_(state), table_(table), next_(from) {
    log_ = withTypes(table, [&]<class Types>() -> std::shared_ptr<Log> {
        return std::make_shared<TypedLog<Types>>(state, table);
    });
}

bool LogFollower::look(const Report& report) {
    std::optional<std::uint64_t> published;
    reporting(report, [&] { published = log_->published(); });
    if (!published)
        return false;
    if (!next_)
        next_ = state_.log(table_, report).keptFrom();
    if (*published < inSight_)
        begunAnew(*published, report);
    inSight_ = *published;
    fromValues_.reset();
    return *next_ <= inSight_;
}

/// The agent has lost its log and counts from the beginning again.
void LogFollower::begunAnew(std::uint64_t published, const Report& report) {
    report({Damage::Kind::rotten,
            fmt::format("{}: was at version {} and is now at {}: another log has taken its place",
                        log_->file(), inSight_, published)});
    next_ = 1;
}

const std::map<std::uint64_t, Change>& LogFollower::fromValues(const Report& report) {
    if (fromValues_)
        return *fromValues_;
    fromValues_.emplace();
    for (const std::uint16_t unit : state_.units(table_)) {
        const State::Walk<Entry> walk = state_.walk(table_, unit);
        while (const auto entry = walk(report)) {
            if (entry->version < *next_ || entry->version > inSight_)
                continue;
            const auto operation =
                entry->inDeletion ? Change::Operation::removed : Change::Operation::written;
            fromValues_->insert(
                {entry->version, {table_, entry->version, unit, operation, entry->id.key}});
        }
    }
    return *fromValues_;
}

std::optional<Change> LogFollower::next(const Report& report) {
    if (!next_ || *next_ > inSight_)
        return std::nullopt;
    const std::uint64_t version = *next_;
    std::optional<Change> change;
    reporting(report, [&] { change = log_->find(version); });
    if (!change) {
        const auto& values = fromValues(report);
        const auto value = values.find(version);
        change = value != values.end() ? value->second
                                       : Change{table_, version, 0, Change::Operation::lost, {}};
    }
    ++*next_;
    return change;
}

}  // namespace Inspect
