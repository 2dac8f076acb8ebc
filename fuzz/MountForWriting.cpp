// The writer mounts a damaged file and goes on with it: it takes it, repairs it or keeps it aside,
// and whatever it works with then is consistent.

#include "fuzz/support/TableFiles.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"

namespace {

template <class Read>
void mayBeRotten(const Read& read) {
    try {
        read();
    } catch (const KivShimo::CorruptionError&) {
        return;
    }
}

void useItems(Fuzz::TableFiles& files) {
    const auto table = files.items();
    // No owner has a pending change that would store a torn value again.
    table->tornSettled();
    KivShimo::Map<Fuzz::Item>& items = table->items;
    items.assertConsistent();
    mayBeRotten([&] { items.forEach([](const Fuzz::Item& /*item*/) {}); });
    std::uint64_t keys = 0;
    for (auto key = items.firstKey(); key; key = items.nextKey(*key)) {
        mayBeRotten([&] { items.find(*key); });
        ++keys;
    }
    Brumo::require(keys == items.count(), "every key is met");
    for (std::uint32_t id = 1; id <= Fuzz::kCapacity; ++id) {
        const bool room = items.count() < items.capacity() || items.has({id, 0});
        Brumo::require(items.insertOrReplace({{id, 0}, {id}}) == room, "room is as counted");
        if (id % 3 == 0)
            items.erase({id, 0});
    }
    items.assertConsistent();
    while (const auto key = items.firstKey())
        items.erase(*key);
    Brumo::require(items.count() == 0, "everything can be erased");
    items.assertConsistent();
}

void useChanges(Fuzz::TableFiles& files) {
    const auto table = files.changes();
    auto& changes = table->changes;
    changes.assertConsistent();
    mayBeRotten([&] { changes.forEach([](const Fuzz::ChangeRecord& /*record*/) {}); });
    std::uint64_t seen = 0;
    changes.visitVersions(0, ~std::uint64_t{0}, [&](std::uint64_t version) {
        mayBeRotten([&] { changes.find(version); });
        ++seen;
    });
    Brumo::require(seen == changes.count(), "every version is met");
    for (std::uint64_t version = 1; version < 2 * changes.slots(); ++version) {
        const bool room = changes.hasRoomFor(version);
        Brumo::require(changes.insert({version, {}}) == room, "room is as said");
        if (version % 3 == 0)
            changes.erase(version);
    }
    changes.assertConsistent();
}

void useAnnouncements(const Fuzz::TableFiles& files) {
    KivShimo::AnnounceLogWriter log(files.root(),
                                    Fuzz::TableFiles::nameOf(Fuzz::FileKind::announcements),
                                    Fuzz::kAnnouncements);
    Brumo::require(log.free() <= log.slots(), "room is within the log");
    const std::uint64_t tail = log.tail();
    log.consumedIs(tail);
    Brumo::require(log.append(1, 1), "a consumed log takes an announcement");
    const auto reader = KivShimo::AnnounceLogReader::open(log.file());
    const auto announcement = reader->next(tail + 1);
    Brumo::require(announcement && announcement->tableId == 1, "what is announced is read");
    while (log.append(2, 2))
        ;
    Brumo::require(log.free() == 0, "a log fills up");
}

void useAcknowledgements(const Fuzz::TableFiles& files) {
    KivShimo::AckMapWriter map(files.root(),
                               Fuzz::TableFiles::nameOf(Fuzz::FileKind::acknowledgements));
    const auto all = map.all();
    Brumo::require(all.size() <= KivShimo::kMostAckTables, "no more tables than rows");
    for (const KivShimo::Acknowledged& table : all) {
        Brumo::require(map.acknowledged(table.tableId) == table.version, "one row a table");
        map.forget(table.tableId);
    }
    Brumo::require(map.all().empty(), "everything can be forgotten");
    Brumo::require(map.ackIs(1, 1) && map.acknowledged(1) == 1, "an empty map takes a table");
    map.consumedIs(map.consumed());
    map.pauseRequestedIs(!map.pauseRequested());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Fuzz::TableFiles files;
    Fuzz::Input input(data, size);
    switch (files.damagedBy(input)) {
        case Fuzz::FileKind::items:
            useItems(files);
            break;
        case Fuzz::FileKind::changes:
            useChanges(files);
            break;
        case Fuzz::FileKind::announcements:
            useAnnouncements(files);
            break;
        case Fuzz::FileKind::acknowledgements:
            useAcknowledgements(files);
            break;
    }
    return 0;
}
