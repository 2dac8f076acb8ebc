// The files of a state directory, opened for reading with their types.
//
// Any process, one thread an object; nothing is written and no writer is held up. A file that is
// not there gives nothing; one that cannot be read throws KivShimo::MountError.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hwside/Files.h"
#include "hwside/Group.h"
#include "inspect/State.h"
#include "inspect/Tables.h"
#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/VersionLogReader.h"
#include "platform/resources/ResourceRecord.h"
#include "types/Records.h"

namespace Inspect {

template <class Types>
using Value = VornPolicyCpu::ConfigShimoEntry<typename Types::Key, typename Types::LogEntry,
                                              typename Types::ResourceKeys>;
template <class Types>
using Record = VornPolicyCpu::LogShimoEntry<typename Types::Key>;
template <class Types>
using Config = KivShimo::MapReader<Value<Types>>;
template <class Types>
using ChangeLog = KivShimo::VersionLogReader<Record<Types>>;

/// What a reader needs to know of the two resource tables, whose own headers belong to their
/// writer.
struct CounterPool {
    static constexpr Pool kPool = Pool::counter;
    using Key = VornCountersLib::CrpsIndexRequestEntryKey;
    using ClientData = std::array<std::uint8_t, 2>;  ///< unused
    static constexpr std::string_view kLibrary = "VornCountersLib";
    static constexpr std::string_view kFileType =
        "VornCountersLib::CrpsIndexRequestResourceTableShimo";
};
struct PolicerPool {
    static constexpr Pool kPool = Pool::policer;
    using Key = VornPolicerLib::PolicerIndexRequestEntryKey;
    using ClientData = VornPolicerLib::PolicerIndexRequestClientData;
    static constexpr std::string_view kLibrary = "VornPolicerLib";
    static constexpr std::string_view kFileType =
        "VornPolicerLib::PolicerIndexRequestResourceTableShimo";
};
constexpr const char* kResourceCollection = "indexes";

/// Units that have a configuration of the table, sorted.
std::vector<std::uint16_t> unitsOf(const HwSide::Group& group, Table table);
/// Folder of the files of a pool's resource tables.
std::string resourceFolder(const HwSide::Group& group, std::string_view library);

template <class Types>
std::optional<Config<Types>> openConfig(const HwSide::Group& group, std::uint16_t unit) {
    const std::string file = group.configFile<Types>(Asic::UnitId{unit});
    if (!HwSide::isThere(file))
        return std::nullopt;
    return Config<Types>(file, VornPolicyCpu::Constants<Types>::configShimoType(),
                         VornPolicyCpu::kSwTableEntries);
}

template <class Types>
std::optional<ChangeLog<Types>> openChangeLog(const HwSide::Group& group) {
    const std::string file = group.changeLogFile<Types>();
    if (!HwSide::isThere(file))
        return std::nullopt;
    return ChangeLog<Types>(file, VornPolicyCpu::Constants<Types>::entryLogShimoType(),
                            VornPolicyCpu::kEntryLogConfig);
}

/// A look that a writer's store got in the way of is repeated; after some tries the BusyError is
/// the caller's.
template <class Look>
auto patiently(const Look& look) {
    constexpr unsigned kTries = 5;
    for (unsigned tries = 1;; ++tries) {
        try {
            return look();
        } catch (const KivShimo::BusyError&) {
            if (tries == kTries)
                throw;
        }
    }
}

Change::Operation operationOf(VornPolicyCpu::LogOperation operation);

template <class Types>
Change changeOf(Table table, const Record<Types>& record) {
    const Change::Operation operation = operationOf(record.operation);
    return {table, record.version.value, record.unitId.value, operation,
            operation == Change::Operation::allRemoved ? std::string() : record.key.toText()};
}

/// The elements of a file one after the other, in no order; what does not verify is reported.
template <class Stored>
class SlotWalk {
public:
    using Reader = KivShimo::MapReader<Stored>;
    using Open = std::function<std::optional<Reader>()>;
    /// `open` is called by the first step.
    explicit SlotWalk(Open open) : open_(std::move(open)) {}

    /// Empty after the last, and where there is no file.
    std::optional<Stored> next(const Report& report) {
        if (open_) {
            reporting(report, [&] {
                if (auto opened = open_())
                    reader_ = std::make_shared<const Reader>(std::move(*opened));
            });
            open_ = nullptr;
        }
        const auto rotten = [&](const KivShimo::CorruptionError& error) {
            report({Damage::Kind::rotten, error.what()});
        };
        while (reader_) {
            try {
                return patiently([&] { return reader_->nextInSlots(slot_, rotten); });
            } catch (const KivShimo::BusyError& error) {
                report({Damage::Kind::busy, error.what()});
                ++slot_;
            }
        }
        return std::nullopt;
    }

private:
    Open open_;
    std::shared_ptr<const Reader> reader_;  ///< copies of the walk share it
    std::uint64_t slot_ = 0;
};

}  // namespace Inspect
