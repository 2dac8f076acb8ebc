// What tables promise, written down a second time with plain maps and lists: what a random sequence
// of operations must lead to. It knows nothing of the engine; only keys, entries and log entries
// are the tables' own types.
//
// The order in which changes of different keys commit is free, so the model is told which change
// commits, checks that it may, and computes everything that follows.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <fmt/format.h>

#include "platform/brumo/Text.h"
#include "tests/model/Commands.h"

namespace ModelTests {

/// The first expectation that did not hold; later ones may follow from it.
class Verdict {
public:
    void expect(bool holds, std::string_view what) {
        if (!holds && first_.empty())
            first_ = what;
    }
    template <class A, class B>
    void equal(const A& actual, const B& expected, std::string_view what) {
        if (!(actual == expected) && first_.empty())
            first_ = fmt::format("{}: is {}, should be {}", what, actual, expected);
    }
    const std::string& failure() const { return first_; }

private:
    std::string first_;
};

enum class Kind : std::uint8_t { write, remove, removeAll };
enum class State : std::uint8_t { created = 0, written = 1, complete = 4, failed = 5 };

/// Highest needed version by table.
using Needed = std::map<std::uint32_t, std::uint64_t>;

struct Need {
    std::uint32_t table = 0;
    std::uint64_t version = 0;
};

inline void need(Needed& needed, std::uint32_t table, std::uint64_t version) {
    if (version == 0)
        return;
    std::uint64_t& held = needed[table];
    held = std::max(held, version);
}

/// A change from its making to its end.
struct Change {
    std::size_t id;
    Kind kind;
    std::uint32_t table;
    const Change* dependency = nullptr;
    std::uint64_t sequence = 0;
    State state = State::created;
    std::uint64_t logVersion = 0;
    unsigned answers = 0;
    bool forgotten = false;  ///< by a restart

    bool dependencyPending() const {
        return dependency != nullptr && dependency->state == State::created;
    }
    bool dependencyFailed() const {
        return dependency != nullptr && dependency->state == State::failed;
    }
};

/// An announcement of a change to the hardware side.
struct Announced {
    std::uint32_t table;
    std::uint64_t version;
    Needed needed;
    bool anew = false;  ///< by a restart: in the order of its table, and with needs of its own

    bool operator==(const Announced&) const = default;
};

/// How much the files take; the default is more than any sequence comes to.
struct Room {
    std::uint64_t records = ~std::uint64_t{0};  ///< slots of a change log
    std::uint64_t values = ~std::uint64_t{0};   ///< of a unit's configuration
};

/// What all families share.
struct World {
    Verdict verdict;
    std::deque<Change> changes;
    std::deque<Announced> announced;
    Reached reached;
    bool paused = false;
    Room room;
    /// Told of each change that goes into a log, before it does: a `FamilyModel::Carried`.
    std::function<void(std::uint32_t table, std::span<const std::byte> carried)> noted;
};

/// What a resource gave for an entry that is to be committed.
template <class Entry>
struct Resolved {
    Entry entry;  ///< with the resolved fields filled in
    Needed needed;
    bool pending = false;
    bool succeeded = true;
};

struct Figures {
    std::uint64_t writes = 0;
    std::uint64_t removes = 0;
    std::uint64_t commits = 0;
    std::uint64_t resolveFailures = 0;
    std::uint64_t updates = 0;
    std::uint64_t updatesWithFailure = 0;
    std::uint64_t clears = 0;

    bool operator==(const Figures&) const = default;
    std::string toText() const {
        return fmt::format("writes {} removes {} commits {} failures {} updates {}/{} clears {}",
                           writes, removes, commits, resolveFailures, updates, updatesWithFailure,
                           clears);
    }
};

/// Entries of collections are walked by (hash, key).
template <class Key>
struct WalkOrder {
    bool operator()(const Key& a, const Key& b) const {
        return a.hash(0) != b.hash(0) ? a.hash(0) < b.hash(0) : (a <=> b) < 0;
    }
};

template <class Types>
struct UnitModel {
    using Key = typename Types::Key;
    using Entry = typename Types::Entry;
    using Order = WalkOrder<Key>;

    struct Staged {
        Change* change;
        Key key;
        Entry entry;
    };
    struct Committed {
        Entry entry;
        std::uint64_t version = 0;
        bool inDeletion = false;
    };

    std::map<Key, Staged, Order> adds;
    std::map<Key, Staged, Order> removes;
    std::map<Key, std::uint64_t, Order> sequences;
    std::optional<std::uint64_t> removeAlls;
    std::deque<Staged> queue;  ///< not committed yet, in the order of their making
    std::map<Key, Committed, Order> config;
    std::deque<Change*> inLog;
    /// Request to the keys that use it, one map a linkage.
    std::array<std::map<std::uint32_t, std::set<Key, Order>>, 2> usage;
    Figures figures;

    const Committed* live(const Key& key) const {
        const auto found = config.find(key);
        return found == config.end() || found->second.inDeletion ? nullptr : &found->second;
    }
    std::uint32_t inDeletion() const {
        std::uint32_t count = 0;
        for (const auto& [key, value] : config)
            count += value.inDeletion ? 1 : 0;
        return count;
    }

    Entry read(const Key& key) const {
        if (const auto staged = adds.find(key); staged != adds.end())
            return staged->second.entry;
        if (!removes.contains(key) && live(key) != nullptr)
            return live(key)->entry;
        return Entry{};
    }
    bool has(const Key& key) const {
        if (adds.contains(key))
            return true;
        if (removes.contains(key) || removeAlls.has_value())
            return false;
        return live(key) != nullptr;
    }
    std::uint32_t entrys() const {
        if (removeAlls.has_value())
            return static_cast<std::uint32_t>(adds.size());
        std::uint32_t count = 0;
        for (const auto& [key, value] : config)
            count += !value.inDeletion && !removes.contains(key) ? 1 : 0;
        for (const auto& [key, staged] : adds)
            count += live(key) == nullptr ? 1 : 0;
        return count;
    }
};

/// A walk over a unit's entries that may be interrupted by changes.
template <class Types>
class WalkModel {
public:
    using Unit = UnitModel<Types>;
    using Key = typename Types::Key;
    using Entry = typename Types::Entry;

    explicit WalkModel(const Unit& unit) : skipCommitted_(unit.removeAlls.has_value()) {
        part_ = Part::adds;
    }
    WalkModel(const Unit& unit, const Key& key)
        : skipCommitted_(unit.removeAlls.has_value()), bookmark_(key) {
        if (unit.adds.contains(key)) {
            part_ = Part::adds;
        } else if (!skipCommitted_ && unit.live(key) != nullptr) {
            part_ = Part::committed;
        }
    }

    /// The next entry; nothing at the end.
    std::optional<Entry> step(const Unit& unit) {
        if (part_ == Part::adds) {
            const auto at = from(unit.adds);
            if (at != unit.adds.end()) {
                const Entry found = at->second.entry;
                const auto next = std::next(at);
                if (next != unit.adds.end()) {
                    bookmark_ = next->first;
                } else {
                    bookmark_.reset();
                    part_ = skipCommitted_ ? Part::end : Part::committed;
                }
                return found;
            }
            part_ = skipCommitted_ ? Part::end : Part::committed;
        }
        if (part_ == Part::committed) {
            for (auto at = from(unit.config); at != unit.config.end(); ++at) {
                if (unit.removes.contains(at->first) || unit.adds.contains(at->first) ||
                    at->second.inDeletion)
                    continue;
                const auto next = std::next(at);
                if (next != unit.config.end()) {
                    bookmark_ = next->first;
                } else {
                    bookmark_.reset();
                    part_ = Part::end;
                }
                return at->second.entry;
            }
        }
        part_ = Part::end;
        return std::nullopt;
    }

private:
    enum class Part : std::uint8_t { adds, committed, end };

    template <class Map>
    auto from(const Map& map) const {
        return bookmark_.has_value() ? map.lower_bound(*bookmark_) : map.begin();
    }

    bool skipCommitted_;
    std::optional<Key> bookmark_;
    Part part_ = Part::end;
};

/// The tables of one family: several units, one change log.
template <class Types>
class FamilyModel {
public:
    using Key = typename Types::Key;
    using Entry = typename Types::Entry;
    using Unit = UnitModel<Types>;
    using Staged = typename Unit::Staged;

    struct Record {
        Kind kind;
        std::size_t unit;
        Key key;
    };

    /// A change as it goes into the log; what of it outlives a killed agent.
    struct Carried {
        std::uint64_t version = 0;
        Kind kind = Kind::write;
        std::uint32_t unit = 0;
        Key key{};
        Entry entry{};  ///< of a write
        std::uint32_t needs = 0;
        std::array<Need, 8> needed{};
    };
    static_assert(std::is_trivially_copyable_v<Carried>);

    FamilyModel(World& world, std::uint32_t table, std::size_t units)
        : world_(world), table_(table), units_(units) {}

    Unit& unit(std::size_t which) { return units_[which]; }
    std::size_t units() const { return units_.size(); }
    std::uint64_t version() const { return version_; }
    std::uint64_t mark() const { return mark_; }
    const std::map<std::uint64_t, Record>& records() const { return records_; }

    bool pendingHwWrites(std::size_t which) const {
        const Unit& u = units_[which];
        return !u.adds.empty() || !u.removes.empty() || u.removeAlls.has_value() ||
               version_ != mark_;
    }

    // Staging.

    Change* stage(std::size_t which, Kind kind, const Key& key, const Entry& entry,
                  const Change* dependency) {
        Unit& u = units_[which];
        world_.changes.push_back({world_.changes.size(), kind, table_, dependency});
        Change* change = &world_.changes.back();
        const Staged staged{change, key, entry};
        if (kind == Kind::removeAll) {
            u.adds.clear();
            u.removes.clear();
            u.removeAlls = u.removeAlls.has_value() ? *u.removeAlls + 1 : 0;
        } else {
            const auto before = u.sequences.find(key);
            change->sequence = before == u.sequences.end() ? 0 : before->second + 1;
            u.sequences[key] = change->sequence;
            u.adds.erase(key);
            u.removes.erase(key);
            (kind == Kind::write ? u.adds : u.removes).emplace(key, staged);
            (kind == Kind::write ? u.figures.writes : u.figures.removes) += 1;
        }
        u.queue.push_back(staged);
        return change;
    }

    // Committing. Each call says that the tables do this now.

    void commitWrite(std::size_t which, Change* change, const Resolved<Entry>& resolved,
                     bool commitAllTheSame) {
        const auto staged = takeCommittable(which, change, Kind::write);
        if (!staged.has_value())
            return;
        Unit& u = units_[which];
        world_.verdict.expect(!resolved.pending, "a write waits for its resources");
        if (!resolved.succeeded) {
            u.figures.resolveFailures += 1;
            world_.reached.resolveFailures += 1;
        }
        clearStaged(u, u.adds, *staged);
        const Key key = staged->key;
        if ((!resolved.succeeded && !commitAllTheSame) || !hasRoom(which, key)) {
            end(*change, State::failed);
            return;
        }
        const std::optional<Entry> before = liveEntry(u, key);
        Needed needed = resolved.needed;
        needDependency(needed, *change);
        carryOut(which, Kind::write, key, resolved.entry, needed);
        change->logVersion = version_;
        if (version_ > mark_) {
            change->state = State::written;
            u.inLog.push_back(change);
        } else {
            end(*change, State::complete);
        }
        moveUsage(u, key, before, staged->entry);
    }

    void commitRemove(std::size_t which, Change* change) {
        const auto staged = takeCommittable(which, change, Kind::remove);
        if (!staged.has_value())
            return;
        Unit& u = units_[which];
        const Key key = staged->key;
        const std::optional<Entry> before = liveEntry(u, key);
        clearStaged(u, u.removes, *staged);
        const auto value = u.config.find(key);
        if (value == u.config.end()) {
            end(*change, State::complete);
        } else {
            Needed needed;
            needDependency(needed, *change);
            carryOut(which, Kind::remove, key, Entry{}, needed);
            change->logVersion = version_;
            change->state = State::written;
            u.inLog.push_back(change);
        }
        if (before.has_value())
            endUsage(u, key, *before);
    }

    /// The oldest remove-all of the unit.
    void commitRemoveAll(std::size_t which) {
        Unit& u = units_[which];
        if (u.queue.empty() || u.queue.front().change->kind != Kind::removeAll) {
            world_.verdict.expect(false, "a remove-all waits for all earlier changes");
            return;
        }
        Change* change = u.queue.front().change;
        takeCommittable(which, change, Kind::removeAll);
        Needed needed;
        needDependency(needed, *change);
        clear(which, true, needed);
        if (!u.removeAlls.has_value()) {
            world_.verdict.expect(false, "a remove-all in flight is counted");
        } else if (*u.removeAlls == 0) {
            u.removeAlls.reset();
        } else {
            u.removeAlls = *u.removeAlls - 1;
        }
    }

    /// What was staged stays staged.
    void failOnDependency(std::size_t which, Change* change) {
        takeOut(which, change);
        world_.verdict.expect(change->dependencyFailed(),
                              "only a failed dependency fails a change");
        end(*change, State::failed);
        world_.reached.dependencyFailures += 1;
    }

    void clear(std::size_t which, bool releaseResources, const Needed& needed) {
        Unit& u = units_[which];
        if (u.config.empty())
            return;
        if (releaseResources) {
            for (const auto& [key, value] : u.config) {
                if (!value.inDeletion)
                    endUsage(u, key, value.entry);
            }
        }
        carryOut(which, Kind::removeAll, Key{}, Entry{}, needed);
        u.figures.clears += 1;
        world_.reached.clears += 1;
    }

    /// A committed entry is looked at again with what its resources give now.
    void update(std::size_t which, const Key& key, const Resolved<Entry>& resolved, bool commit) {
        Unit& u = units_[which];
        const auto* value = u.live(key);
        if (value == nullptr) {
            world_.verdict.expect(false, "only a committed entry is updated");
            return;
        }
        if (!resolved.succeeded) {
            u.figures.updatesWithFailure += 1;
            world_.reached.updatesWithFailure += 1;
        }
        if (!commit || resolved.entry == value->entry)
            return;
        carryOut(which, Kind::write, key, resolved.entry, resolved.needed);
        u.figures.updates += 1;
        world_.reached.updates += 1;
    }

    /// A killed agent has done this to its files.
    void carriedOut(const Carried& carried) {
        Needed needed;
        for (std::uint32_t i = 0; i < carried.needs; ++i)
            need(needed, carried.needed.at(i).table, carried.needed.at(i).version);
        carryOut(carried.unit, carried.kind, carried.key, carried.entry, needed);
    }

    bool hasRoom(std::size_t which, const Key& key) const {
        const auto& config = units_[which].config;
        return config.size() < world_.room.values || config.contains(key);
    }

    // The hardware side.

    void cleanup(std::uint64_t target) {
        if (mark_ != 0 && mark_ > target) {
            mark_ = target;
            return;
        }
        for (auto at = records_.lower_bound(mark_); at != records_.end() && at->first <= target;) {
            reclaim(at->first, at->second);
            at = records_.erase(at);
        }
        mark_ = target;
        if (lostUpTo_ == 0 || target < lostUpTo_)
            return;
        lostUpTo_ = 0;
        for (Unit& u : units_) {
            std::erase_if(u.config, [&](const auto& it) {
                return it.second.inDeletion && it.second.version <= target;
            });
        }
    }

    void status(std::uint64_t version) {
        for (Unit& u : units_) {
            cleanup(version);
            while (!u.inLog.empty() && u.inLog.front()->logVersion <= version) {
                end(*u.inLog.front(), State::complete);
                u.inLog.pop_front();
            }
        }
    }

    /// Only what lies in shared memory is left. `acknowledged`: 0 when nothing ever was.
    void restart(std::uint64_t acknowledged) {
        mark_ = 0;
        lostUpTo_ = records_.empty() ? version_ : records_.begin()->first - 1;
        cleanup(acknowledged);
        for (Unit& u : units_) {
            Unit restored;
            restored.config = u.config;
            std::erase_if(restored.config, [&](const auto& it) {
                return it.second.inDeletion && it.second.version <= acknowledged;
            });
            for (const auto& [key, value] : restored.config) {
                if (!value.inDeletion)
                    startUsage(restored, key, value.entry);
            }
            u = restored;
        }
    }

private:
    static std::array<std::uint32_t, 2> requestsOf(const Entry& entry) {
        if constexpr (requires { entry.counterRequestKey; }) {
            return {entry.counterRequestKey.requestId, entry.policerRequestKey.requestId};
        } else {
            return {0, 0};
        }
    }

    static std::optional<Entry> liveEntry(const Unit& u, const Key& key) {
        const auto* value = u.live(key);
        return value == nullptr ? std::nullopt : std::optional<Entry>(value->entry);
    }

    std::optional<Staged> takeOut(std::size_t which, const Change* change) {
        auto& queue = units_[which].queue;
        for (auto at = queue.begin(); at != queue.end(); ++at) {
            if (at->change != change)
                continue;
            const Staged staged = *at;
            checkOrder(queue, at);
            world_.verdict.expect(!change->dependencyPending(),
                                  "a change waits for its dependency");
            world_.verdict.expect(!world_.paused, "nothing is committed in a pause");
            queue.erase(at);
            units_[which].figures.commits += 1;
            world_.reached.commits += 1;
            return staged;
        }
        world_.verdict.expect(false, "a change is committed once");
        return std::nullopt;
    }

    std::optional<Staged> takeCommittable(std::size_t which, const Change* change, Kind kind) {
        world_.verdict.expect(change->kind == kind, "a change is committed as what it is");
        world_.verdict.expect(!change->dependencyFailed(), "a failed dependency fails the change");
        return takeOut(which, change);
    }

    void checkOrder(const std::deque<Staged>& queue,
                    typename std::deque<Staged>::const_iterator at) {
        for (auto earlier = queue.begin(); earlier != at; ++earlier) {
            const Kind kind = earlier->change->kind;
            world_.verdict.expect(kind != Kind::removeAll, "a remove-all holds later changes back");
            world_.verdict.expect(at->change->kind != Kind::removeAll,
                                  "a remove-all waits for earlier changes");
            world_.verdict.expect(kind == Kind::removeAll || earlier->key != at->key,
                                  "changes of a key commit in their order");
        }
    }

    void clearStaged(Unit& u, std::map<Key, Staged, typename Unit::Order>& collection,
                     const Staged& staged) {
        const auto found = collection.find(staged.key);
        if (found == collection.end() || found->second.change->sequence != staged.change->sequence)
            return;
        collection.erase(found);
        u.sequences.erase(staged.key);
    }

    void end(Change& change, State state) {
        change.state = state;
        change.answers += 1;
        world_.reached.answers += 1;
    }

    void needDependency(Needed& needed, const Change& change) {
        if (change.dependency != nullptr)
            need(needed, change.dependency->table, change.dependency->logVersion);
    }

    /// Into the log and the configuration. A full log gives up its oldest record.
    void carryOut(std::size_t which, Kind kind, const Key& key, const Entry& entry,
                  const Needed& needed) {
        ++version_;
        note(which, kind, key, entry, needed);
        const std::uint64_t givenUp = version_ - std::min(version_, world_.room.records);
        if (records_.erase(givenUp) > 0)
            lostUpTo_ = givenUp;
        records_.emplace(version_, Record{kind, which, key});
        world_.announced.push_back({table_, version_, needed});
        auto& config = units_[which].config;
        if (kind == Kind::write) {
            config[key] = {entry, version_, false};
            return;
        }
        for (auto& [held, value] : config) {
            if (kind == Kind::remove ? held == key : !value.inDeletion) {
                value.version = version_;
                value.inDeletion = true;
            }
        }
    }

    void note(std::size_t which, Kind kind, const Key& key, const Entry& entry,
              const Needed& needed) {
        if (!world_.noted)
            return;
        Carried carried{version_, kind, static_cast<std::uint32_t>(which), key, entry};
        for (const auto& [table, version] : needed)
            carried.needed.at(carried.needs++) = {table, version};
        world_.noted(table_, std::as_bytes(std::span(&carried, 1)));
    }

    void reclaim(std::uint64_t version, const Record& record) {
        auto& config = units_[record.unit].config;
        if (record.kind == Kind::remove) {
            const auto value = config.find(record.key);
            if (value != config.end() && value->second.version == version)
                config.erase(value);
        } else if (record.kind == Kind::removeAll) {
            std::erase_if(config, [&](const auto& it) { return it.second.version == version; });
        }
    }

    static void startUsage(Unit& u, const Key& key, const Entry& entry) {
        for (std::size_t linkage = 0; linkage < 2; ++linkage) {
            if (const std::uint32_t request = requestsOf(entry)[linkage]; request != 0)
                u.usage[linkage][request].insert(key);
        }
    }
    static void endUsage(Unit& u, const Key& key, const Entry& entry) {
        for (std::size_t linkage = 0; linkage < 2; ++linkage) {
            const auto users = u.usage[linkage].find(requestsOf(entry)[linkage]);
            if (users == u.usage[linkage].end())
                continue;
            users->second.erase(key);
            if (users->second.empty())
                u.usage[linkage].erase(users);
        }
    }
    static void moveUsage(Unit& u, const Key& key, const std::optional<Entry>& before,
                          const Entry& after) {
        if (before.has_value() && !(*before == Entry{})) {
            const auto held = requestsOf(*before);
            const auto wanted = requestsOf(after);
            for (std::size_t linkage = 0; linkage < 2; ++linkage) {
                if (held[linkage] == wanted[linkage])
                    continue;
                const auto users = u.usage[linkage].find(held[linkage]);
                if (users != u.usage[linkage].end()) {
                    users->second.erase(key);
                    if (users->second.empty())
                        u.usage[linkage].erase(users);
                }
                if (wanted[linkage] != 0)
                    u.usage[linkage][wanted[linkage]].insert(key);
            }
            return;
        }
        startUsage(u, key, after);
    }

    World& world_;
    std::uint32_t table_;
    std::vector<Unit> units_;
    std::uint64_t version_ = 0;
    std::uint64_t mark_ = 0;
    std::uint64_t lostUpTo_ = 0;  ///< records are gone that were not cleaned up
    std::map<std::uint64_t, Record> records_;
};

}  // namespace ModelTests
