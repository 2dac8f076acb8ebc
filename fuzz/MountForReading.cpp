// A reader opens a damaged file and reads everything in it: whole values or an error, nothing else.

#include "fuzz/support/TableFiles.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/VersionLogReader.h"

namespace {

/// What a reader may answer instead of a value. "Busy" comes after many tries: once an input.
template <class Read>
void mayRefuse(const Read& read) {
    try {
        read();
    } catch (const KivShimo::CorruptionError&) {
        return;
    }
}

void readItems(const std::string& file) {
    const KivShimo::MapReader<Fuzz::Item> items(file, Fuzz::kItemType, "items");
    mayRefuse([&] { items.scratchpad(); });
    std::uint64_t seen = 0;
    mayRefuse([&] {
        items.forEach([&](const Fuzz::Item& /*item*/) {
            Brumo::require(++seen <= items.capacity(), "a walk ends");
        });
    });
    for (std::uint32_t id = 0; id <= Fuzz::kCapacity; ++id) {
        const Fuzz::ItemKey key{id, 0};
        mayRefuse([&] { items.find(key); });
        mayRefuse([&] { items.lowerBound(key); });
        mayRefuse([&] { items.next(key); });
    }
    items.count();
    items.wiped();
}

void readChanges(const std::string& file) {
    const KivShimo::VersionLogReader<Fuzz::ChangeRecord> changes(file, Fuzz::kChangeType,
                                                                 "changes");
    mayRefuse([&] { changes.scratchpad(); });
    mayRefuse([&] {
        std::uint64_t last = 0;
        changes.forEach(0, ~std::uint64_t{0}, [&](const Fuzz::ChangeRecord& record) {
            Brumo::require(record.version > last, "versions rise");
            last = record.version;
        });
    });
    for (std::uint64_t version = 0; version < 3 * changes.slots(); ++version) {
        mayRefuse([&] { changes.find(version); });
    }
    mayRefuse([&] { changes.find(~std::uint64_t{0}); });
    changes.count();
}

void readAnnouncements(const std::string& file) {
    const auto log = KivShimo::AnnounceLogReader::open(file);
    if (!log)
        return;
    const std::uint64_t tail = log->tail();
    std::uint64_t at = tail > log->slots() ? tail - log->slots() : 1;
    for (std::uint64_t left = log->slots() + 2; left > 0; --left) {
        mayRefuse([&] {
            const auto announcement = log->next(at);
            if (announcement) {
                Brumo::require(announcement->position >= at, "positions rise");
                at = announcement->position;
            }
        });
        ++at;
    }
}

void readAcknowledgements(const std::string& file) {
    const auto map = KivShimo::AckMapReader::open(file);
    if (!map)
        return;
    mayRefuse([&] {
        for (const KivShimo::Acknowledged& table : map->all([](const auto&) {}))
            map->acknowledged(table.tableId);
    });
    mayRefuse([&] { map->acknowledged(1); });
    mayRefuse([&] { map->consumed(); });
    mayRefuse([&] { map->announceIdentity(); });
    mayRefuse([&] { map->pauseRequested(); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Fuzz::TableFiles files;
    Fuzz::Input input(data, size);
    const Fuzz::FileKind kind = files.damagedBy(input);
    const std::string file = files.fileOf(kind);
    try {
        mayRefuse([&] {
            switch (kind) {
                case Fuzz::FileKind::items:
                    return readItems(file);
                case Fuzz::FileKind::changes:
                    return readChanges(file);
                case Fuzz::FileKind::announcements:
                    return readAnnouncements(file);
                case Fuzz::FileKind::acknowledgements:
                    return readAcknowledgements(file);
            }
        });
    } catch (const KivShimo::MountError&) {
        return 0;
    } catch (const KivShimo::BusyError&) {
        return 0;
    }
    return 0;
}
