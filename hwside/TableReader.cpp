#include "hwside/TableReader.h"

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "hwside/Files.h"
#include "platform/brumo/Trace.h"
#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/VersionLogReader.h"

namespace HwSide {

namespace {

using VornPolicyCpu::LogOperation;

const Brumo::TraceSource kTrace{"HwSideTableReader", "TableReader"};

template <class Types>
class ShimoTableReader final : public TableReader {
public:
    ShimoTableReader(Group group, Tcam& tcam) : group_(std::move(group)), tcam_(&tcam) {}

    std::uint32_t tableId() const override { return Types::kTableId.whole(); }
    bool stale() const override;
    void close() override;
    Applied apply(Asic::LogVersion version) override;
    std::optional<Asic::LogVersion> laterVersion() const override {
        return later_.value.inDeletion ? std::nullopt : std::optional(later_.value.version);
    }
    void programLater() override {
        tcam_->program<Types>(later_.unit, later_.value.logEntry, later_.value.version);
    }
    Asic::LogVersion published() override;
    void programAll(Asic::LogVersion upTo) override;
    void removeRest() override;
    std::uint64_t rotten() const override { return rotten_; }
    Asic::LogVersion reached() const override { return tcam_->reached<Types>(); }
    void reachedIs(Asic::LogVersion version) override { tcam_->reachedIs<Types>(version); }

private:
    using Key = typename Types::Key;
    using Constants = VornPolicyCpu::Constants<Types>;
    using Record = VornPolicyCpu::LogShimoEntry<Key>;
    using Value = VornPolicyCpu::ConfigShimoEntry<Key, typename Types::LogEntry,
                                                  typename Types::ResourceKeys>;
    using ChangeLog = KivShimo::VersionLogReader<Record>;
    using Config = KivShimo::MapReader<Value>;

    /// Null while the file is not there. Both throw KivShimo::MountError.
    const ChangeLog* changeLog();
    const Config* config(Asic::UnitId unit);

    struct Later {
        Asic::UnitId unit;
        Value value{};
    };

    Applied carryOut(const Record& record);
    Applied write(const Record& record);
    void programUnit(Asic::UnitId unit, Asic::LogVersion upTo);
    void report(std::string_view what);

    Group group_;
    Tcam* tcam_;
    std::optional<ChangeLog> changeLog_;
    std::map<Asic::UnitId, Config> configs_;
    std::uint64_t rotten_ = 0;
    Later later_;  ///< of the last `superseded`

    // Of the snapshot under way
    std::map<Asic::UnitId, std::set<Key>> kept_;
    std::set<Asic::UnitId> unsure_;  ///< not read whole
};

template <class Types>
bool ShimoTableReader<Types>::stale() const {
    if (changeLog_ && changeLog_->stale())
        return true;
    for (const auto& [unit, config] : configs_) {
        if (config.stale())
            return true;
    }
    return false;
}

template <class Types>
void ShimoTableReader<Types>::close() {
    changeLog_.reset();
    configs_.clear();
}

template <class Types>
auto ShimoTableReader<Types>::changeLog() -> const ChangeLog* {
    if (!changeLog_) {
        const std::string file = group_.changeLogFile<Types>();
        if (!isThere(file))
            return nullptr;
        changeLog_.emplace(file, Constants::entryLogShimoType(), VornPolicyCpu::kEntryLogConfig);
    }
    return &*changeLog_;
}

template <class Types>
auto ShimoTableReader<Types>::config(Asic::UnitId unit) -> const Config* {
    const auto at = configs_.find(unit);
    if (at != configs_.end())
        return &at->second;
    const std::string file = group_.configFile<Types>(unit);
    if (!isThere(file))
        return nullptr;
    return &configs_
                .emplace(std::piecewise_construct, std::forward_as_tuple(unit),
                         std::forward_as_tuple(file, Constants::configShimoType(),
                                               VornPolicyCpu::kSwTableEntries))
                .first->second;
}

template <class Types>
void ShimoTableReader<Types>::report(std::string_view what) {
    ++rotten_;
    kTrace(1, " {}", what);
}

template <class Types>
Applied ShimoTableReader<Types>::apply(Asic::LogVersion version) {
    try {
        const ChangeLog* const log = changeLog();
        const std::optional<Record> record =
            log == nullptr ? std::nullopt : log->find(version.value);
        if (record)
            return carryOut(*record);
        kTrace(1, " {}: no record of version {}", Types::kName, version);
        return Applied::lost;
    } catch (const KivShimo::BusyError&) {
        return Applied::busy;
    } catch (const KivShimo::CorruptionError& error) {
        report(error.what());
        return Applied::lost;
    } catch (const KivShimo::MountError& error) {
        report(error.what());
        return Applied::lost;
    }
}

template <class Types>
Applied ShimoTableReader<Types>::carryOut(const Record& record) {
    switch (record.operation) {
        case LogOperation::entryWritten:
            return write(record);
        case LogOperation::entryDeleted:
            tcam_->remove<Types>(record.unitId, record.key);
            return Applied::done;
        case LogOperation::allDeleted:
            tcam_->clearBefore<Types>(record.unitId, record.version);
            return Applied::done;
    }
    report(fmt::format("{}: {}: no such operation", Types::kName, record.toText()));
    return Applied::lost;
}

template <class Types>
Applied ShimoTableReader<Types>::write(const Record& record) {
    std::optional<Value> value;
    const Config* const unit = config(record.unitId);
    try {
        if (unit != nullptr)
            value = unit->find(record.key);
    } catch (const KivShimo::CorruptionError& error) {
        report(error.what());
        return Applied::rotten;
    }
    if (!value || value->version < record.version) {
        // Stored before the record was, so this is not how the agent left it.
        kTrace(1, " {}: {}: there is no such value", Types::kName, record.toText());
        return Applied::lost;
    }
    if (value->version > record.version || value->inDeletion) {
        later_ = {record.unitId, *value};
        return Applied::superseded;
    }
    tcam_->program<Types>(record.unitId, value->logEntry, value->version);
    return Applied::done;
}

template <class Types>
Asic::LogVersion ShimoTableReader<Types>::published() {
    const ChangeLog* const log = changeLog();
    return {log == nullptr ? 0 : log->scratchpad()};
}

template <class Types>
void ShimoTableReader<Types>::programAll(Asic::LogVersion upTo) {
    kept_.clear();
    unsure_.clear();
    const std::filesystem::path anyFile = group_.configFile<Types>(Asic::UnitId{0});
    for (const Asic::UnitId unit : unitsIn(anyFile.parent_path().string())) {
        try {
            programUnit(unit, upTo);
        } catch (const KivShimo::MountError& error) {
            report(error.what());
            unsure_.insert(unit);
        }
    }
}

template <class Types>
void ShimoTableReader<Types>::programUnit(Asic::UnitId unit, Asic::LogVersion upTo) {
    const Config* const values = config(unit);
    if (values == nullptr)
        return;
    std::set<Key>& kept = kept_[unit];
    const auto take = [&](const Value& value) {
        if (kept.contains(value.key()))
            return;
        if (value.version > upTo) {
            kept.insert(value.key());  // hardware keeps what it has until the announcement comes
        } else if (!value.inDeletion) {
            tcam_->program<Types>(unit, value.logEntry, value.version);
            kept.insert(value.key());
        }
    };
    try {
        values->forEach(take);
    } catch (const KivShimo::CorruptionError& error) {
        unsure_.insert(unit);
        const std::uint64_t before = rotten_;
        values->visitSlots(take,
                           [&](const KivShimo::CorruptionError& slot) { report(slot.what()); });
        if (rotten_ == before)
            report(error.what());  // what leads to the values
    }
}

template <class Types>
void ShimoTableReader<Types>::removeRest() {
    tcam_->removeIf<Types>([&](Asic::UnitId unit, const Key& key, Asic::LogVersion /*version*/) {
        if (unsure_.contains(unit))
            return false;
        const auto kept = kept_.find(unit);
        return kept == kept_.end() || !kept->second.contains(key);
    });
    kept_.clear();
    unsure_.clear();
}

}  // namespace

std::vector<std::unique_ptr<TableReader>> tableReaders(const Group& group, Tcam& tcam) {
    std::vector<std::unique_ptr<TableReader>> tables;
    tables.push_back(std::make_unique<ShimoTableReader<ActionTypes>>(group, tcam));
    tables.push_back(std::make_unique<ShimoTableReader<V4Types>>(group, tcam));
    tables.push_back(std::make_unique<ShimoTableReader<V6Types>>(group, tcam));
    return tables;
}

}  // namespace HwSide
