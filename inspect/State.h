// What a state directory says of tables, changes and indexes, as plain values.
//
// Any process, one thread an object; the same beside a live agent and on what a dead one left. What
// does not verify is reported and the rest still told.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hwside/Group.h"
#include "inspect/Tables.h"
#include "process/EntryJson.h"

namespace Inspect {

using Json = nlohmann::ordered_json;

/// What cannot be read: bytes that do not verify, or that somebody keeps changing.
struct Damage {
    enum class Kind : std::uint8_t { rotten, busy, unreadable };
    Kind kind = Kind::rotten;
    std::string what;  ///< file, and slot where it is one

    bool operator==(const Damage&) const = default;
};
std::string_view kindText(Damage::Kind kind);
using Report = std::function<void(const Damage&)>;

/// Calls `look`, and reports what it throws of shared memory's errors. False where it threw.
bool reporting(const Report& report, const std::function<void()>& look);

/// The action's name or the match entry's label in what Process::entryJson makes.
std::string nameIn(const Json& content);

/// A committed value.
struct Entry {
    EntryId id;
    std::uint64_t version = 0;  ///< of the change that wrote it last
    bool inDeletion = false;
    Json content;                ///< Process::entryJson
    std::string counterRequest;  ///< of an action; empty where it needs none
    std::string policerRequest;

    std::string name() const { return nameIn(content); }
};

/// A change record.
struct Change {
    Table table = Table::action;
    std::uint64_t version = 0;
    std::uint16_t unit = 0;
    /// `lost` is what followers of a log say (Follow.h): published, and nothing tells any more what
    /// it did.
    enum class Operation : std::uint8_t { written, removed, allRemoved, unknown, lost };
    Operation operation = Operation::written;
    std::string key;  ///< empty for allRemoved and lost
};
/// "write", "remove", "removeAll", "unknown", "lost".
std::string_view operationText(Change::Operation operation);

struct LogFigures {
    Table table = Table::action;
    bool isThere = false;
    std::uint64_t published = 0;  ///< the newest version
    std::uint64_t records = 0;
    std::uint64_t capacity = 0;
    std::uint64_t slots = 0;
    std::optional<std::uint64_t> oldest;  ///< record that is kept

    /// Below it, records may be gone.
    std::uint64_t keptFrom() const { return oldest.value_or(published + 1); }
};

struct Acknowledgement {
    std::uint32_t tableId = 0;
    std::uint64_t version = 0;
};

struct Acknowledgements {
    bool isThere = false;
    std::vector<Acknowledgement> rows;
    std::uint64_t consumed = 0;  ///< position in the announcements
    bool pauseRequested = false;

    std::optional<std::uint64_t> of(Table table) const;
};

struct AnnouncementFigures {
    bool isThere = false;
    std::uint64_t tail = 0;
    std::uint64_t slots = 0;
};

/// The record of an index that is not free.
struct ResourceRow {
    Pool pool = Pool::counter;
    std::uint32_t index = 0;
    std::string request;
    bool isReturning = false;
    std::uint64_t version = 0;
    std::uint32_t userTable = 0;
    std::string file;
};

class State {
public:
    /// Throws StateDirectoryError where the directory is none, holds no tables of the group, or
    /// none that can be read.
    explicit State(std::string root);

    const std::string& root() const { return group_.root; }
    const HwSide::Group& group() const { return group_; }

    std::vector<std::uint16_t> units(Table table) const;
    /// Of all tables.
    std::vector<std::uint16_t> units() const;

    /// Gives one after the other and then nothing; what cannot be read is reported, and the walk
    /// goes on behind it. Opens its file at the first call and keeps it open: one that is put in
    /// its place is not seen.
    template <class Element>
    using Walk = std::function<std::optional<Element>(const Report& report)>;

    /// The unit's values, in no order. One that is there all the time comes once.
    Walk<Entry> walk(Table table, std::uint16_t unit) const;
    /// The unit's values in the order in which hardware tries them; actions by name.
    std::vector<Entry> entries(Table table, std::uint16_t unit, const Report& report) const;
    /// Nothing where there is none. Throws KivShimo errors.
    std::optional<Entry> entry(const EntryId& id) const {
        return lookup(id.table, id.unit)(id.key);
    }
    /// The same for many keys of a unit, whose file it keeps open. Throws KivShimo errors, now and
    /// when it is called.
    using Lookup = std::function<std::optional<Entry>(const std::string& key)>;
    Lookup lookup(Table table, std::uint16_t unit) const;
    /// The inspection listing of the unit's table: the text of each live value, in the order of the
    /// table's own listing.
    std::vector<std::string> listing(Table table, std::uint16_t unit, const Report& report) const;
    /// Live values and values in deletion.
    struct Count {
        std::uint64_t live = 0;
        std::uint64_t inDeletion = 0;
    };
    Count count(Table table, std::uint16_t unit, const Report& report) const;

    LogFigures log(Table table, const Report& report) const;
    /// Records of versions `from` to `to`, both included, the lowest first; of what is published
    /// when the walk begins.
    Walk<Change> walkChanges(Table table, std::uint64_t from, std::uint64_t to) const;
    void changes(Table table, std::uint64_t from, std::uint64_t to,
                 const std::function<void(const Change&)>& visit, const Report& report) const;
    Acknowledgements acknowledgements(const Report& report) const;
    AnnouncementFigures announcements(const Report& report) const;
    /// In no order.
    Walk<ResourceRow> walkResources(Pool pool) const;
    /// By index.
    std::vector<ResourceRow> resources(Pool pool, const Report& report) const;

private:
    void requireReadable() const;

    HwSide::Group group_;
};

}  // namespace Inspect
