// Reading a table: what is staged lies over what is committed. And the acknowledgements, which end
// the queued changes.
#pragma once

#include "platform/brumo/Assert.h"
#include "swtable/EntryIterator.h"
#include "swtable/OrderedSwTableAccessor.h"

namespace VornPolicyCpu {

/// A pending remove-all is not consulted: a committed key is read until the remove-all commits.
template <class B>
auto OrderedSwTableAccessor<B>::entryReadGeneric(const Table& table, const Key& key) -> Entry {
    Traces<B>::engine(8, "");
    if (const WrapperPtr staged = table.transientAddEntry(key); staged != nullptr) {
        return staged->entry();
    }
    if (table.transientRemoveEntry(key) == nullptr) {
        const auto found = table.entryLog()->liveEntry(
            key, table.unitId(),
            [&key](const ConfigValue& stored) { return entryFromFound(key, stored); });
        if (found.has_value())
            return *found;
    }
    Traces<B>::engine(1, "Failed to find entry for key: {}", key);
    return Entry{};
}

/// The entry of a value that has been looked up already, traced as if entryFromConfig of the table
/// had been asked for it.
template <class B>
auto OrderedSwTableAccessor<B>::entryFromFound(const Key& key, const ConfigValue& stored) -> Entry {
    Traces<B>::swTable.in("entryFromConfig", 8, " key: {}", key);
    Traces<B>::engine.in("entryFromConfig", 8, "key: {}", key);
    return Entry::from(stored.logEntry, stored.rsrcKeys);
}

template <class B>
auto OrderedSwTableAccessor<B>::entryFromConfig(const Table& table, const Key& key) -> Entry {
    Traces<B>::engine(8, "key: {}", key);
    const auto value = table.entryLog()->configEntry(key, table.unitId());
    if (!value.has_value() || value->inDeletion)
        return Entry{};
    return Entry::from(value->logEntry, value->rsrcKeys);
}

template <class B>
bool OrderedSwTableAccessor<B>::entryHas(const Table& table, const Key& key) {
    Traces<B>::engine(8, "key: {}", key);
    if (table.transientAddEntry(key) != nullptr)
        return true;
    if (table.transientRemoveEntry(key) != nullptr)
        return false;
    if (table.transientRemoveAllVersion().valid())
        return false;
    return table.entryLog()->entryHas(key, table.unitId());
}

template <class B>
std::uint32_t OrderedSwTableAccessor<B>::entrys(const Table& table) {
    const auto staged = static_cast<std::uint32_t>(table.transientAddEntrys());
    if (table.transientRemoveAllVersion().valid())
        return staged;
    const EntryLog<B>& log = *table.entryLog();
    std::uint32_t adds = 0;
    table.forEachTransientAdd([&](const Key& key) {
        if (!log.entryHas(key, table.unitId()))
            ++adds;
    });
    std::uint32_t removes = 0;
    table.forEachTransientRemove([&](const Key& key) {
        if (log.entryHas(key, table.unitId()))
            ++removes;
    });
    return adds + log.entrys(table.unitId()) - removes;
}

template <class B>
void OrderedSwTableAccessor<B>::tableStatusVersion(Table& table, Asic::LogVersion version) {
    Traces<B>::engine(8, "tableVersion: {}", version);
    table.entryLog()->cleanupEntryLog(version);
    table.groupResolver()->updateGenId();
    while (const HandlePtr front = table.entryHandleInLogFront()) {
        if (front->logVersion() > version)
            break;
        table.entryHandleInLogDeq();
        Traces<B>::engine(3, "Processing version: {}, key: {}", front->logVersion(), front->key());
        table.stats()->hardwareTimes().add(table.groupResolver()->turnTime() -
                                           front->committedAt());
        answer(front, Asic::EntryState::complete);
    }
    updateFamily(table);
}

/// The steps of a walk over a table.
template <class B>
class IterStateAccessor {
public:
    using Entry = typename B::Entry;
    using State = SwTableIteratorState<B>;

    /// Moves the state to the next entry, which `entry` becomes; the default entry at the end,
    /// where the state no longer has a valid current entry. It is written in its place.
    static void maybeUpdateCurrentEntry(State& state, Entry& entry) {
        Traces<B>::iterator(8, "");
        if (state.inAddColl() && stepTransientAdd(state, entry))
            return;
        if (state.inTblCfg() && stepConfiguration(state, entry))
            return;
        trace("  no more entries");
        state.clear(State::kCurrentEntryValid);
        state.clear(State::kInAddCollection);
        state.clear(State::kInConfiguration);
        entry = Entry{};
    }

private:
    template <class... Arguments>
    static void trace(Brumo::TraceText<std::type_identity_t<Arguments>...> line,
                      const Arguments&... arguments) {
        Traces<B>::iterator.in("maybeUpdateCurrentEntry", 9, line, arguments...);
    }

    static void leaveAddCollection(State& state) {
        trace("  done with transAdd");
        state.clear(State::kInAddCollection);
        if (!state.has(State::kRemoveAllPending))
            state.set(State::kInConfiguration);
    }

    /// False when the staged writes held no further entry.
    static bool stepTransientAdd(State& state, Entry& entry) {
        Brumo::require(!state.inTblCfg(), "!iterState_->state().inTblCfg()");
        const auto& staged = state.swTable()->transientAddEntry_;
        trace("  in transientAdd collection");
        const auto* node =
            state.has(State::kBookmarkSet) ? staged.lowerBound(state.bookmark()) : staged.first();
        if (node == nullptr) {
            leaveAddCollection(state);
            return false;
        }
        state.set(State::kCurrentEntryValid);
        entry = node->value->entry();
        trace("  found entry: {}", entry);
        if (const auto* following = staged.next(*node); following != nullptr) {
            state.bookmarkIs(following->key);
        } else {
            state.bookmarkDel();
            leaveAddCollection(state);
        }
        return true;
    }

    /// False when the committed entries held no further one that is to be shown.
    static bool stepConfiguration(State& state, Entry& entry) {
        Brumo::require(!state.inAddColl(), "!iterState_->state().inAddColl()");
        trace("  in cfgShimo collection");
        const typename B::SwTable& table = *state.swTable();
        const auto config = table.entryLog()->tableConfigShimo(table.unitId());
        if (config == nullptr)
            return false;
        try {
            auto at = state.has(State::kBookmarkSet)
                          ? config->swTableEntriesAtOrAfter(state.bookmark(), state.guess())
                          : config->swTableEntriesStart();
            const auto take = [&](const auto& value) {
                if (hidden(table, value))
                    return false;
                entry.logEntryIs(value.logEntry, value.rsrcKeys);
                return true;
            };
            while (at && !config->swTableEntriesAt(at, take))
                at = config->swTableEntriesNext(at);
            if (!at)
                return false;
            const auto next = config->swTableEntriesNext(at);
            state.set(State::kCurrentEntryValid);
            trace("  found entry: {}", entry);
            bookmarkNext(state, *config, next);
        } catch (const KivShimo::CorruptionError& error) {
            config->doCorruptionDetected(error.what());
            return false;
        }
        return true;
    }

    template <class Config>
    static void bookmarkNext(State& state, const Config& config, typename State::Position next) {
        if (next) {
            state.bookmarkIs(config.swTableEntriesKeyAt(next), next);
            return;
        }
        trace("  done with cfgShimo");
        state.bookmarkDel();
        state.clear(State::kInConfiguration);
    }

    /// Removed, shown before as a staged write, or deleted already.
    template <class Value>
    static bool hidden(const typename B::SwTable& table, const Value& value) {
        return value.inDeletion || table.transientRemoveEntry_.find(value.key()) != nullptr ||
               table.transientAddEntry_.find(value.key()) != nullptr;
    }
};

template <class B>
auto SwTable<B>::EntryIteratorConst::operator++() -> EntryIteratorConst& {
    IterStateAccessor<B>::maybeUpdateCurrentEntry(*state_, current_);
    return *this;
}

}  // namespace VornPolicyCpu
