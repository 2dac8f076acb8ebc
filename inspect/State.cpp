// Values, changes, acknowledgements and indexes out of their files.
#include "inspect/State.h"

#include <algorithm>
#include <filesystem>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/Readers.h"
#include "platform/kiv/HashMap2018.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "process/KeyText.h"

namespace Inspect {

namespace {

/// "" for the key that stands for no request.
template <class Key>
std::string requestText(const Key& key) {
    return key.requestId == 0 ? std::string() : key.toText();
}

template <class Types>
Entry entryOf(std::uint16_t unit, const Value<Types>& value) {
    Entry entry{{}, value.version.value, value.inDeletion, Process::entryJson(value.logEntry), {},
                {}};
    entry.id.unit = unit;
    entry.id.key = value.key().toText();
    if constexpr (requires { value.rsrcKeys.counterRequestKey; }) {
        entry.counterRequest = requestText(value.rsrcKeys.counterRequestKey);
        entry.policerRequest = requestText(value.rsrcKeys.policerRequestKey);
    }
    return entry;
}

/// Match entries as hardware tries them; actions by name.
template <class Types>
bool comesBefore(const Value<Types>& left, const Value<Types>& right) {
    if constexpr (requires { left.logEntry.priority; }) {
        if (left.logEntry.priority.get() != right.logEntry.priority.get())
            return left.logEntry.priority.get() > right.logEntry.priority.get();
    } else if (left.logEntry.name != right.logEntry.name) {
        return left.logEntry.name < right.logEntry.name;
    }
    return left.key() < right.key();
}

template <class Types>
SlotWalk<Value<Types>> valueWalk(const HwSide::Group& group, std::uint16_t unit) {
    return SlotWalk<Value<Types>>([&group, unit] { return openConfig<Types>(group, unit); });
}

/// All values that can be read.
template <class Types>
std::vector<Value<Types>> valuesOf(const HwSide::Group& group, std::uint16_t unit,
                                   const Report& report) {
    std::vector<Value<Types>> values;
    auto walk = valueWalk<Types>(group, unit);
    while (const auto value = walk.next(report))
        values.push_back(*value);
    return values;
}

template <class PoolTypes>
State::Walk<ResourceRow> poolWalk(std::vector<std::string> files) {
    using Stored = Asic::ResourceRecord<PoolTypes>;
    const auto walkOf = [](const std::string& file) {
        return SlotWalk<Stored>([file] {
            return std::optional(
                KivShimo::MapReader<Stored>(file, PoolTypes::kFileType, kResourceCollection));
        });
    };
    std::optional<SlotWalk<Stored>> walk;
    std::size_t next = 0;
    return [files = std::move(files), walkOf, walk,
            next](const Report& report) mutable -> std::optional<ResourceRow> {
        for (;; walk.reset()) {
            if (!walk) {
                if (next == files.size())
                    return std::nullopt;
                walk = walkOf(files[next++]);
            }
            if (const auto stored = walk->next(report)) {
                return ResourceRow{PoolTypes::kPool,
                                   stored->index,
                                   stored->requestKey.toText(),
                                   stored->state == Asic::ResourceRecordState::returning,
                                   stored->version,
                                   stored->userTable,
                                   files[next - 1]};
            }
        }
    };
}

}  // namespace

Change::Operation operationOf(VornPolicyCpu::LogOperation operation) {
    switch (operation) {
        case VornPolicyCpu::LogOperation::entryWritten:
            return Change::Operation::written;
        case VornPolicyCpu::LogOperation::entryDeleted:
            return Change::Operation::removed;
        case VornPolicyCpu::LogOperation::allDeleted:
            return Change::Operation::allRemoved;
    }
    return Change::Operation::unknown;
}

std::string_view kindText(Damage::Kind kind) {
    switch (kind) {
        case Damage::Kind::rotten:
            return "rotten";
        case Damage::Kind::busy:
            return "busy";
        case Damage::Kind::unreadable:
            break;
    }
    return "unreadable";
}

bool reporting(const Report& report, const std::function<void()>& look) {
    try {
        look();
        return true;
    } catch (const KivShimo::CorruptionError& error) {
        report({Damage::Kind::rotten, error.what()});
    } catch (const KivShimo::BusyError& error) {
        report({Damage::Kind::busy, error.what()});
    } catch (const KivShimo::MountError& error) {
        report({Damage::Kind::unreadable, error.what()});
    }
    return false;
}

std::string nameIn(const Json& content) {
    return content.value("name", content.value("label", std::string()));
}

std::string_view operationText(Change::Operation operation) {
    switch (operation) {
        case Change::Operation::written:
            return "write";
        case Change::Operation::removed:
            return "remove";
        case Change::Operation::allRemoved:
            return "removeAll";
        case Change::Operation::lost:
            return "lost";
        case Change::Operation::unknown:
            break;
    }
    return "unknown";
}

std::optional<std::uint64_t> Acknowledgements::of(Table table) const {
    const auto row = std::ranges::find(rows, tableId(table), &Acknowledgement::tableId);
    return row == rows.end() ? std::nullopt : std::optional(row->version);
}

State::State(std::string root) : group_{std::move(root)} {
    std::error_code error;
    if (!std::filesystem::is_directory(group_.root, error)) {
        throw StateDirectoryError(
            fmt::format("{}: {}", group_.root, error ? error.message() : "not a directory"));
    }
    requireReadable();
}

/// One file that cannot be read is damage, and reported where it is read. Where none can be, it is
/// another layout, or somebody else's.
void State::requireReadable() const {
    std::optional<std::string> reason;
    bool anyRead = false;
    const auto tryFile = [&](const auto& open) {
        try {
            anyRead = open() || anyRead;
        } catch (const KivShimo::MountError& unreadable) {
            reason = reason.value_or(unreadable.what());
        }
    };
    for (const Table table : kTables) {
        withTypes(table, [&]<class Types>() {
            tryFile([&] { return openChangeLog<Types>(group_).has_value(); });
            for (const std::uint16_t unit : unitsOf(group_, table))
                tryFile([&] { return openConfig<Types>(group_, unit).has_value(); });
        });
    }
    if (anyRead)
        return;
    throw StateDirectoryError(
        reason ? *reason : fmt::format("{}: holds no tables: no agent has run here", group_.root));
}

std::vector<std::uint16_t> State::units(Table table) const {
    return unitsOf(group_, table);
}

std::vector<std::uint16_t> State::units() const {
    std::vector<std::uint16_t> all;
    for (const Table table : kTables) {
        const auto some = unitsOf(group_, table);
        all.insert(all.end(), some.begin(), some.end());
    }
    std::ranges::sort(all);
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
}

State::Walk<Entry> State::walk(Table table, std::uint16_t unit) const {
    return withTypes(table, [&]<class Types>() -> Walk<Entry> {
        // The group is copied: a walk may outlive the state.
        const auto group = std::make_shared<const HwSide::Group>(group_);
        return [group, values = valueWalk<Types>(*group, unit), table,
                unit](const Report& report) mutable -> std::optional<Entry> {
            const auto value = values.next(report);
            if (!value)
                return std::nullopt;
            Entry entry = entryOf<Types>(unit, *value);
            entry.id.table = table;
            return entry;
        };
    });
}

std::vector<std::string> State::listing(Table table, std::uint16_t unit,
                                        const Report& report) const {
    return withTypes(table, [&]<class Types>() {
        std::vector<Value<Types>> values = valuesOf<Types>(group_, unit, report);
        std::erase_if(values, [](const Value<Types>& value) { return value.inDeletion; });
        std::ranges::sort(values, [](const Value<Types>& left, const Value<Types>& right) {
            return Kiv::KeyOrder(left.key()) < Kiv::KeyOrder(right.key());
        });
        std::vector<std::string> lines;
        lines.reserve(values.size());
        for (const Value<Types>& value : values)
            lines.push_back(Types::Entry::from(value.logEntry, value.rsrcKeys).toText());
        return lines;
    });
}

std::vector<Entry> State::entries(Table table, std::uint16_t unit, const Report& report) const {
    return withTypes(table, [&]<class Types>() {
        std::vector<Value<Types>> values = valuesOf<Types>(group_, unit, report);
        std::ranges::sort(values, comesBefore<Types>);
        std::vector<Entry> entries;
        entries.reserve(values.size());
        for (const Value<Types>& value : values) {
            entries.push_back(entryOf<Types>(unit, value));
            entries.back().id.table = table;
        }
        return entries;
    });
}

State::Lookup State::lookup(Table table, std::uint16_t unit) const {
    return withTypes(table, [&]<class Types>() -> Lookup {
        const auto config =
            std::make_shared<std::optional<Config<Types>>>(openConfig<Types>(group_, unit));
        return [config, table, unit](const std::string& text) -> std::optional<Entry> {
            const auto key = Process::keyFromText<typename Types::Key>(text);
            if (!key || !*config)
                return std::nullopt;
            const auto value = patiently([&] { return (*config)->find(*key); });
            if (!value)
                return std::nullopt;
            Entry entry = entryOf<Types>(unit, *value);
            entry.id.table = table;
            return entry;
        };
    });
}

State::Count State::count(Table table, std::uint16_t unit, const Report& report) const {
    return withTypes(table, [&]<class Types>() {
        Count count;
        for (const Value<Types>& value : valuesOf<Types>(group_, unit, report))
            ++(value.inDeletion ? count.inDeletion : count.live);
        return count;
    });
}

LogFigures State::log(Table table, const Report& report) const {
    LogFigures figures;
    figures.table = table;
    withTypes(table, [&]<class Types>() {
        reporting(report, [&] {
            const auto log = openChangeLog<Types>(group_);
            if (!log)
                return;
            figures.isThere = true;
            figures.capacity = log->capacity();
            figures.slots = log->slots();
            figures.published = log->scratchpad();
            figures.records = patiently([&] { return log->count(); });
            std::uint64_t version =
                figures.published > log->slots() ? figures.published - log->slots() + 1 : 1;
            for (; version <= figures.published && !figures.oldest; ++version) {
                reporting(report, [&] {
                    if (patiently([&] { return log->find(version); }))
                        figures.oldest = version;
                });
            }
        });
    });
    return figures;
}

State::Walk<Change> State::walkChanges(Table table, std::uint64_t from, std::uint64_t to) const {
    return withTypes(table, [&]<class Types>() -> Walk<Change> {
        struct Open {
            std::optional<ChangeLog<Types>> log;
            std::uint64_t version = 0;
            std::uint64_t last = 0;
        };
        const auto opened = [group = group_, from, to](const Report& report) {
            Open open;
            reporting(report, [&] {
                auto log = openChangeLog<Types>(group);
                if (!log)
                    return;
                open.last = std::min(to, log->scratchpad());
                // What lies further back than there are slots is not kept.
                open.version =
                    std::max(from, open.last > log->slots() ? open.last - log->slots() + 1 : 1);
                open.log = std::move(log);
            });
            return open;
        };
        return [opened, open = std::shared_ptr<Open>(),
                table](const Report& report) mutable -> std::optional<Change> {
            if (!open)
                open = std::make_shared<Open>(opened(report));
            std::optional<Change> change;
            while (open->log && !change && open->version <= open->last) {
                reporting(report, [&] {
                    const auto record = patiently([&] { return open->log->find(open->version); });
                    if (record)
                        change = changeOf<Types>(table, *record);
                });
                ++open->version;
            }
            return change;
        };
    });
}

void State::changes(Table table, std::uint64_t from, std::uint64_t to,
                    const std::function<void(const Change&)>& visit, const Report& report) const {
    const Walk<Change> next = walkChanges(table, from, to);
    while (const auto change = next(report))
        visit(*change);
}

Acknowledgements State::acknowledgements(const Report& report) const {
    Acknowledgements acks;
    reporting(report, [&] {
        const auto map = KivShimo::AckMapReader::open(
            KivShimo::tableFile(group_.root, HwSide::Group::acknowledgementsPath()));
        if (!map)
            return;
        acks.isThere = true;
        for (const auto& [table, version] : map->all([&](const KivShimo::CorruptionError& error) {
                 report({Damage::Kind::rotten, error.what()});
             })) {
            acks.rows.push_back({table, version});
        }
        std::ranges::sort(acks.rows, {}, &Acknowledgement::tableId);
        reporting(report, [&] { acks.consumed = map->consumed(); });
        reporting(report, [&] { acks.pauseRequested = map->pauseRequested(); });
    });
    return acks;
}

AnnouncementFigures State::announcements(const Report& report) const {
    AnnouncementFigures figures;
    reporting(report, [&] {
        const auto log = KivShimo::AnnounceLogReader::open(group_.announcementsFile());
        if (!log)
            return;
        figures.isThere = true;
        figures.slots = log->slots();
        figures.tail = log->tail();
    });
    return figures;
}

State::Walk<ResourceRow> State::walkResources(Pool pool) const {
    const auto walkOf = [&]<class PoolTypes>() -> Walk<ResourceRow> {
        return [folder = resourceFolder(group_, PoolTypes::kLibrary),
                walk = Walk<ResourceRow>()](const Report& report) mutable {
            if (!walk) {
                std::vector<std::string> files;
                reporting(report, [&] { files = HwSide::tableFilesIn(folder); });
                walk = poolWalk<PoolTypes>(std::move(files));
            }
            return walk(report);
        };
    };
    return pool == Pool::counter ? walkOf.template operator()<CounterPool>()
                                 : walkOf.template operator()<PolicerPool>();
}

std::vector<ResourceRow> State::resources(Pool pool, const Report& report) const {
    std::vector<ResourceRow> rows;
    const Walk<ResourceRow> walk = walkResources(pool);
    while (auto row = walk(report))
        rows.push_back(std::move(*row));
    std::ranges::sort(rows, {}, &ResourceRow::index);
    return rows;
}

}  // namespace Inspect
