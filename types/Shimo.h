// The shared-memory tables of each table as their writer sees them: a configuration a unit, and one
// change log.
//
// Event thread of the agent. Whoever mounts them registers their types once, with ShimoTypes.
//
// What always holds: what the collections promise (platform/kivshimo/Map.h, VersionLog.h).
#pragma once

#include <optional>
#include <vector>

#include "platform/kivshimo/Map.h"
#include "platform/kivshimo/Table.h"
#include "platform/kivshimo/VersionLog.h"
#include "types/Constants.h"
#include "types/Records.h"

namespace VornPolicyCpu {

/// One unit's committed values by key. Reads throw KivShimo::CorruptionError.
template <TableTypes Types>
class ConfigShimo final : public KivShimo::Table {
public:
    using Key = typename Types::Key;
    using Value = ConfigShimoEntry<Key, typename Types::LogEntry, typename Types::ResourceKeys>;

    static std::vector<KivShimo::CollectionLayout> layouts() {
        return {KivShimo::Map<Value>::layout(kSwTableEntries)};
    }
    explicit ConfigShimo(KivShimo::TableMount mount)
        : KivShimo::Table(std::move(mount)), swTableEntries_(*this, kSwTableEntries) {}

    using Position = typename KivShimo::Map<Value>::Position;

    /// False when the key is new and there is no room.
    bool swTableEntriesIs(const Value& value) { return swTableEntries_.insertOrReplace(value); }
    using Spot = typename KivShimo::Map<Value>::Spot;
    Spot swTableEntriesSpot(const Key& key) const { return swTableEntries_.spotOf(key); }
    /// As KivShimo::Map::prefetch.
    void swTableEntriesPrefetch(const Key& key) const { swTableEntries_.prefetch(key); }
    /// The same as swTableEntriesIs, for a caller in whose own journal the value is until this has
    /// returned.
    bool swTableEntriesJournaledIs(const Spot& spot, const KivShimo::Summed<Value>& value) {
        return swTableEntries_.journaledIs(spot, value);
    }
    void swTableEntriesDel(const Key& key) { swTableEntries_.erase(key); }
    /// Nothing when the key is absent.
    std::optional<Value> swTableEntries(const Key& key) const { return swTableEntries_.find(key); }
    std::uint64_t swTableEntriesCount() const { return swTableEntries_.count(); }
    bool swTableEntriesHasRoomFor(const Key& key) const {
        return swTableEntries_.count() < swTableEntries_.capacity() || swTableEntries_.has(key);
    }

    // Walks in the collection's order, which any change between two steps leaves whole.
    std::optional<Value> swTableEntriesFromStart() const { return swTableEntries_.first(); }
    std::optional<Value> swTableEntriesAfter(const Key& key) const {
        return swTableEntries_.next(key);
    }
    /// Calls `visit` for each value; it may change everything.
    template <class Visit>
    void swTableEntriesForEach(Visit&& visit) const {
        swTableEntries_.forEach(visit);
    }

    // Single steps; see Map::Position for how long one holds.
    Position swTableEntriesPosition(const Key& key) const {
        return swTableEntries_.positionOf(key);
    }
    Position swTableEntriesStart() const { return swTableEntries_.begin(); }
    Position swTableEntriesAtOrAfter(const Key& key, Position guess) const {
        return swTableEntries_.atOrAfter(key, guess);
    }
    Position swTableEntriesNext(Position position) const { return swTableEntries_.after(position); }
    const Key& swTableEntriesKeyAt(Position position) const {
        return swTableEntries_.keyAt(position);
    }
    std::optional<Value> swTableEntriesAt(Position position) const {
        return swTableEntries_.valueAt(position);
    }
    /// What `use` makes of the value.
    template <class Use>
    auto swTableEntriesAt(Position position, const Use& use) const {
        return swTableEntries_.valueAt(position, use);
    }
    /// Calls `visit` for each value that can be read; reports the others and goes on behind them.
    /// `visit` may change everything.
    template <class Visit>
    void swTableEntriesForEachWhole(Visit&& visit) {
        Key key{};
        for (Position at = swTableEntries_.begin(); at; at = swTableEntries_.after(key, at)) {
            key = swTableEntries_.keyAt(at);
            visitWhole(at, visit);
        }
    }
    /// The same for those in deletion, in no order. The others are passed over as they stand,
    /// rotten or not. `visit` may delete the value that it is given.
    template <class Visit>
    void swTableEntriesForEachInDeletion(Visit&& visit) {
        swTableEntries_.forEachMarked([&](Position at) { visitWhole(at, visit); });
    }

private:
    template <class Visit>
    void visitWhole(Position at, const Visit& visit) {
        std::optional<Value> value;
        try {
            value = swTableEntries_.valueAt(at);
        } catch (const KivShimo::CorruptionError& error) {
            doCorruptionDetected(error.what());
            return;
        }
        visit(*value);
    }

    KivShimo::Map<Value> swTableEntries_;
};

/// A table's change log. Reads throw KivShimo::CorruptionError.
template <TableTypes Types>
class EntryLogShimo final : public KivShimo::Table {
public:
    using Record = LogShimoEntry<typename Types::Key>;

    static std::vector<KivShimo::CollectionLayout> layouts() {
        return {Log::layout(kEntryLogConfig)};
    }
    explicit EntryLogShimo(KivShimo::TableMount mount)
        : KivShimo::Table(std::move(mount)), entryLogConfig_(*this, kEntryLogConfig) {}

    /// False when the place of the version is taken.
    bool entryLogConfigIs(const Record& record) { return entryLogConfig_.insert(record); }
    /// The version whose record is where that of `version` belongs; 0 when there is none.
    Asic::LogVersion entryLogConfigInPlaceOf(Asic::LogVersion version) const {
        return {entryLogConfig_.versionInPlaceOf(version.value)};
    }
    /// The highest version of which there is a record, just after the mount; 0 when there is none.
    Asic::LogVersion entryLogConfigHighest() const { return {entryLogConfig_.highestBound()}; }
    void entryLogConfigDel(Asic::LogVersion version) { entryLogConfig_.erase(version.value); }
    /// Nothing when there is no record of that version.
    std::optional<Record> entryLogConfig(Asic::LogVersion version) const {
        return entryLogConfig_.find(version.value);
    }
    std::size_t entryLogConfigs() const { return entryLogConfig_.count(); }
    std::size_t entryLogConfigCapacity() const { return entryLogConfig_.capacity(); }
    /// The lowest version at or after `version` of which there is a record; nothing is read.
    std::optional<Asic::LogVersion> entryLogConfigVersionAtOrAfter(Asic::LogVersion version) const {
        const auto found = entryLogConfig_.versionAtOrAfter(version.value);
        if (!found.has_value())
            return std::nullopt;
        return Asic::LogVersion{*found};
    }

private:
    using Log = KivShimo::VersionLog<Record>;

    Log entryLogConfig_;
};

/// Registers a table's shared-memory types for as long as the object lives.
template <TableTypes Types>
struct ShimoTypes {
    KivShimo::TableTypeRegistration config{Constants<Types>::configShimoType(),
                                           KivShimo::tableTypeOf<ConfigShimo<Types>>()};
    KivShimo::TableTypeRegistration entryLog{Constants<Types>::entryLogShimoType(),
                                             KivShimo::tableTypeOf<EntryLogShimo<Types>>()};
};

}  // namespace VornPolicyCpu
