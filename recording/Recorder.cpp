#include "recording/Recorder.h"

#include <algorithm>

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

/// By table, each one once: a map that names one twice lies.
void putInOrder(std::vector<Look::Row>& rows) {
    std::ranges::sort(rows, {}, &Look::Row::table);
    const auto isSame = [](const Look::Row& a, const Look::Row& b) { return a.table == b.table; };
    rows.erase(std::unique(rows.begin(), rows.end(), isSame), rows.end());
}

/// Brings what was known of a map up to date; `moved` are the rows that say something else, by
/// table. False where that does not say it all: a table has gone, or back; both are of no use then.
/// The order of the map's rows must not matter: a replay lays them out in another.
bool bringUpToDate(std::vector<KivShimo::Acknowledged>& known,
                   const KivShimo::Acknowledgements& now, std::vector<Look::Row>& moved) {
    moved.clear();
    const std::size_t before = known.size();
    std::size_t found = 0;
    std::size_t place = 0;
    bool isOnward = true;
    for (const auto& [table, version] : now) {
        // Nearly always in the same place.
        auto old = known.begin() + static_cast<long>(std::min(place++, known.size()));
        if (old == known.end() || old->tableId != table)
            old = std::ranges::find(known, table, &KivShimo::Acknowledged::tableId);
        if (old == known.end()) {
            known.push_back({table, version});
            moved.push_back({table, version});
            continue;
        }
        found += old - known.begin() < static_cast<long>(before) ? 1 : 0;
        if (old->version == version)
            continue;
        isOnward &= version > old->version;
        old->version = version;
        moved.push_back({table, version});
    }
    if (moved.size() > 1)
        putInOrder(moved);
    return isOnward && found == before;
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
    const PackedEntry entry(change.entry);  // of nothing where nothing is written: one call of tell
    const auto operation = static_cast<Recording::Change::Operation>(change.operation);
    const bool isWrite = operation == Recording::Change::Operation::write;
    tell(Recording::Change{.operation = operation,
                           .number = lastNumber_,
                           .table = change.table.tableId().whole(),
                           .unit = change.table.unitId().value,
                           .key = change.key,
                           .dependency = numberOfDependency(change.dependency),
                           .hasHandler = change.hasHandler,
                           .entry = isWrite ? entry.bytes() : Bytes{}});
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
    const bool isAnother = look_.map == 0 || mapIdentity_ != reading.identity;
    const auto log = static_cast<Look::Log>(*reading.log);
    const std::uint64_t consumed = reading.consumed.value_or(look_.consumed);
    const bool pauseRequested = reading.pauseRequested.value_or(look_.pauseRequested);
    const bool isWhole = !bringUpToDate(versions_, reading.versions, look_.rows);
    if (!takesUp && !isAnother && !isWhole && look_.rows.empty() && log == look_.log &&
        consumed == look_.consumed && pauseRequested == look_.pauseRequested)
        return;
    look_.isWhole = isWhole || isAnother || isStarting_;
    if (look_.isWhole) {
        versions_.assign(reading.versions.begin(), reading.versions.end());
        look_.rows.clear();
        for (const auto& [table, version] : versions_)
            look_.rows.push_back({table, version});
        putInOrder(look_.rows);
    }
    mapIdentity_ = reading.identity;
    look_.map += isAnother ? 1 : 0;
    look_.log = log;
    look_.consumed = consumed;
    look_.pauseRequested = pauseRequested;
    look_.call = isStarting_ ? calls_ : 0;
    tell(look_);
}

void Recorder::stateIs(const Asic::DependencyEntryHandle& handle) {
    if (handle.recordNumber() == 0) [[unlikely]]
        tellOfOwn(handle);
    tell(State{handle.recordNumber(), static_cast<std::uint8_t>(handle.entryState()),
               handle.entryTableVersion().version.value});
}

void Recorder::tellOfOwn(const Asic::DependencyEntryHandle& handle) {
    handle.recordNumberIs(++lastNumber_);
    const auto* const own = dynamic_cast<const Asic::OrderedSwTable::EntryHandle*>(&handle);
    const std::string key = own == nullptr ? std::string() : own->keyText();
    tell(OwnChange{lastNumber_, handle.tableId().whole(), key});
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
