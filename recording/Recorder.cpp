#include "recording/Recorder.h"

#include <algorithm>
#include <utility>

#include "recording/PackedEntry.h"

namespace Recording {

namespace {

// Numbers in files: those of the platform may be counted otherwise some day.
static_assert(static_cast<int>(Asic::Recorder::Operation::removeAll) ==
              static_cast<int>(Change::Operation::removeAll));
static_assert(static_cast<int>(Asic::Recorder::ResourceOperation::sweep) ==
              static_cast<int>(ResourceOperation::Operation::sweep));
static_assert(static_cast<int>(Asic::AckMapReading::Log::another) ==
              static_cast<int>(Look::Log::another));

std::uint64_t numberOfDependency(const Asic::DependencyEntryHandle* dependency) {
    if (dependency == nullptr)
        return 0;
    return dependency->recordNumber() == 0 ? Change::kForeign : dependency->recordNumber();
}

/// The rows that say something else than before. False where it takes all of them to say it: a row
/// has gone, or back.
bool keepMoved(const std::vector<Look::Row>& before, const std::vector<Look::Row>& now,
               std::vector<Look::Row>& moved) {
    moved.clear();
    auto old = before.begin();
    for (const Look::Row& row : now) {
        const bool isNew = old == before.end() || row.table < old->table;
        if (isNew || row.version != old->version)
            moved.push_back(row);
        if (isNew)
            continue;
        if (old->table != row.table || row.version < old->version)
            return false;
        ++old;
    }
    return old == before.end();
}

}  // namespace

Recorder::Recorder(const Kiv::EventLoop& loop, Sink& sink) : loop_(loop), sink_(sink) {
    Asic::recorderIs(this);
}

Recorder::~Recorder() {
    if (Asic::recorder() == this)
        Asic::recorderIs(nullptr);
}

void Recorder::changeStaged(const Asic::Recorder::Change& change) {
    change.handle.recordNumberIs(++lastNumber_);
    if (change.operation != Asic::Recorder::Operation::write)
        return tellOfChange(change, {});
    const PackedEntry entry(change.entry);
    tellOfChange(change, entry.bytes());
}

void Recorder::tellOfChange(const Asic::Recorder::Change& change, Bytes entry) {
    tell(Recording::Change{.operation = static_cast<Recording::Change::Operation>(change.operation),
                           .number = lastNumber_,
                           .table = change.table.tableId().whole(),
                           .unit = change.table.unitId().value,
                           .key = change.key,
                           .entry = entry,
                           .dependency = numberOfDependency(change.dependency),
                           .hasHandler = change.hasHandler});
}

void Recorder::resourceOperation(Asic::SwTableId table, Asic::Recorder::ResourceOperation operation,
                                 std::uint64_t key) {
    tell(Recording::ResourceOperation{
        static_cast<Recording::ResourceOperation::Operation>(operation), table.whole(), key});
}

/// A look that finds what the one before has found is told only where it makes a difference: an
/// agent at work looks after each piece of it. While a process starts, its looks are counted: what
/// one of them has found is found by the ones that follow, up to the next that is told.
void Recorder::mapRead(const Asic::AckMapReading& reading, bool takesUp) {
    nextRows_.clear();
    for (const auto& [table, version] : reading.versions)
        nextRows_.push_back({table, version});
    std::ranges::sort(nextRows_, {}, &Look::Row::table);
    const bool isAnother = look_.map == 0 || mapIdentity_ != reading.identity;
    const auto log = static_cast<Look::Log>(*reading.log);
    const std::uint64_t consumed = reading.consumed.value_or(look_.consumed);
    const bool pauseRequested = reading.pauseRequested.value_or(look_.pauseRequested);
    if (!takesUp && !isAnother && log == look_.log && consumed == look_.consumed &&
        pauseRequested == look_.pauseRequested && nextRows_ == rows_)
        return;
    look_.isWhole = isAnother || isStarting_ || !keepMoved(rows_, nextRows_, look_.rows);
    if (look_.isWhole)
        look_.rows = nextRows_;
    std::swap(rows_, nextRows_);
    mapIdentity_ = reading.identity;
    look_.map += isAnother ? 1 : 0;
    look_.log = log;
    look_.consumed = consumed;
    look_.pauseRequested = pauseRequested;
    look_.call = isStarting_ ? calls_ : 0;
    tell(look_);
}

void Recorder::stateIs(const Asic::DependencyEntryHandle& handle) {
    if (handle.recordNumber() == 0) {
        handle.recordNumberIs(++lastNumber_);
        const auto* const own = dynamic_cast<const Asic::OrderedSwTable::EntryHandle*>(&handle);
        const std::string key = own == nullptr ? std::string() : own->keyText();
        tell(OwnChange{lastNumber_, handle.tableId().whole(), key});
    }
    tell(State{handle.recordNumber(), static_cast<std::uint8_t>(handle.entryState()),
               handle.entryTableVersion().version.value});
}

/// Most handlers only take note: one that gives nothing to the tables is not told of.
void Recorder::handlerIs(const Asic::DependencyEntryHandle& handle, bool runs) {
    if (runs) {
        silent_.push_back(handle.recordNumber());
    } else if (!silent_.empty()) {
        silent_.pop_back();  // the last to begin is the first to end
    } else {
        put(Handler{handle.recordNumber(), false});
    }
}

void Recorder::tellOfHandlers() {
    for (const std::uint64_t number : silent_)
        put(Handler{number, true});
    silent_.clear();
}

void Recorder::resourceStateIs(const Asic::Recorder::ResourceState& state) {
    tell(Recording::ResourceState{state.table.whole(), state.key,
                                  static_cast<std::uint8_t>(state.state), state.updateVersion,
                                  state.index});
}

}  // namespace Recording
