// The smallest hardware side that keeps the rules of order, acknowledgement and snapshot: it prints
// what it would program, and acknowledges it. A file that is busy or rotten ends it with status 4,
// where one in service tries again. docs/hardware-side.md explains each step.
//
//   vorn-example-minimal-reader DIR          follows the agent in DIR until it is killed
//   vorn-example-minimal-reader DIR --once   ends when nothing is left to do

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "platform/asic/Constants.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Doorbell.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/VersionLogReader.h"
#include "types/Constants.h"

namespace {

using namespace VornPolicyCpu;

/// The tables of the group, by the numbers under which they are announced.
constexpr std::uint32_t kActionTable = PolicyCpuTcamActionTypes::kTableId.whole();
constexpr std::uint32_t kV4Table = PolicyCpuV4TcamEntryTypes::kTableId.whole();
constexpr std::uint32_t kV6Table = PolicyCpuV6TcamEntryTypes::kTableId.whole();

std::string fileOf(const std::string& root, const std::string& path) {
    return KivShimo::tableFile(root, path);
}

template <class Types>
using Value =
    ConfigShimoEntry<typename Types::Key, typename Types::LogEntry, typename Types::ResourceKeys>;
template <class Types>
using Values = KivShimo::MapReader<Value<Types>>;
template <class Types>
using Changes = KivShimo::VersionLogReader<LogShimoEntry<typename Types::Key>>;

template <class Types>
Values<Types> valuesOf(const std::string& root, Asic::UnitId unit) {
    return {fileOf(root, Constants<Types>::configShimoPath(unit)),
            Constants<Types>::configShimoType(), kSwTableEntries};
}

template <class Types>
void program(Asic::UnitId unit, const Value<Types>& value) {
    fmt::print("{} unit {}: write {}\n", Types::kName, unit, value.logEntry.toText());
}

/// Carries out the change of a version: the record says what was done, the value what is wanted.
template <class Types>
void carryOut(const std::string& root, std::uint64_t version) {
    const Changes<Types> changes(fileOf(root, Constants<Types>::tableEntryLogShimoPath()),
                                 Constants<Types>::entryLogShimoType(), kEntryLogConfig);
    const auto record = changes.find(version);
    if (!record)
        return;
    if (record->operation == LogOperation::entryDeleted) {
        fmt::print("{} unit {}: remove {}\n", Types::kName, record->unitId, record->key);
    } else if (record->operation == LogOperation::allDeleted) {
        fmt::print("{} unit {}: remove all before version {}\n", Types::kName, record->unitId,
                   version);
    } else {
        const auto value = valuesOf<Types>(root, record->unitId).find(record->key);
        // A newer value is announced later; one in deletion is removed later.
        const bool isCurrent = value && value->version.value == version && !value->inDeletion;
        if (isCurrent)
            program<Types>(record->unitId, *value);
    }
}

/// Programs every live value up to the published version, which is returned; 0 without a log.
template <class Types>
std::uint64_t published(const std::string& root) {
    const std::string file = fileOf(root, Constants<Types>::tableEntryLogShimoPath());
    if (!std::filesystem::exists(file))
        return 0;
    return Changes<Types>(file, Constants<Types>::entryLogShimoType(), kEntryLogConfig)
        .scratchpad();
}
template <class Types>
void programAll(const std::string& root, std::uint64_t upTo) {
    const std::filesystem::path someFile =
        fileOf(root, Constants<Types>::configShimoPath(Asic::UnitId{0}));
    if (!std::filesystem::exists(someFile.parent_path()))
        return;
    for (const auto& file : std::filesystem::directory_iterator(someFile.parent_path())) {
        if (file.path().extension() != KivShimo::kTableSuffix)
            continue;
        const auto unit = Asic::Constants::getUnitIdFromConfigPath(file.path().stem().string());
        if (!unit)
            continue;
        valuesOf<Types>(root, *unit).forEach([&](const Value<Types>& value) {
            if (value.version.value <= upTo && !value.inDeletion)
                program<Types>(*unit, value);
        });
    }
}

class MinimalReader {
public:
    explicit MinimalReader(const std::string& root)
        : root_(root),
          acks_(root, Asic::Constants::acknowledgementsPath(canonicalGroupName())),
          bell_(Asic::Constants::hardwareDoorbell(root)),
          sleeper_(acks_.sleepEpoch()) {
        // Now there are acknowledgements to look at.
        KivShimo::ring(Asic::Constants::agentDoorbell(root_));
    }

    void run(bool once) {
        while (true) {
            sleeper_.awake();
            work();
            sleeper_.asleep();
            if (work())
                continue;  // announced while we fell asleep
            if (once)
                return;
            pollfd ring{bell_.fd(), POLLIN, 0};
            ::poll(&ring, 1, -1);
            bell_.drain();
        }
    }

private:
    /// Whether there was anything to do.
    bool work() {
        if (!log_ || log_->stale()) {
            waker_.reset();
            log_ = KivShimo::AnnounceLogReader::open(
                fileOf(root_, Asic::Constants::announcementsPath(canonicalGroupName())));
            if (!log_)
                return false;
            waker_.emplace(log_->sleepEpoch(), Asic::Constants::agentDoorbell(root_));
            snapshot();
        } else if (hasBegunAnew(publishedVersions())) {
            snapshot();
        }
        bool worked = false;
        while (const auto change = log_->next(acks_.consumed() + 1)) {
            // What it needs of other tables was announced before, and passed.
            const bool isReady = std::ranges::all_of(change->needed, [&](const auto& needed) {
                return !isOwn(needed.tableId) ||
                       acks_.acknowledged(needed.tableId).value_or(0) >= needed.version;
            });
            if (!isReady)
                break;
            if (change->version > acks_.acknowledged(change->tableId).value_or(0))
                apply(*change);
            acks_.consumedIs(change->position);
            worked = true;
        }
        waker_->published();
        return worked;
    }

    void apply(const KivShimo::Announcement& change) {
        if (change.tableId == kActionTable) {
            carryOut<PolicyCpuTcamActionTypes>(root_, change.version);
        } else if (change.tableId == kV4Table) {
            carryOut<PolicyCpuV4TcamEntryTypes>(root_, change.version);
        } else if (change.tableId == kV6Table) {
            carryOut<PolicyCpuV6TcamEntryTypes>(root_, change.version);
        }
        acks_.ackIs(change.tableId, change.version);  // other tables have nothing to look up
    }

    static bool isOwn(std::uint32_t tableId) {
        return tableId == kActionTable || tableId == kV4Table || tableId == kV6Table;
    }

    /// Of the own tables, those that need others read before those that are needed.
    std::map<std::uint32_t, std::uint64_t> publishedVersions() const {
        std::map<std::uint32_t, std::uint64_t> versions;
        versions[kV6Table] = published<PolicyCpuV6TcamEntryTypes>(root_);
        versions[kV4Table] = published<PolicyCpuV4TcamEntryTypes>(root_);
        versions[kActionTable] = published<PolicyCpuTcamActionTypes>(root_);
        return versions;
    }

    /// Whether a change log is another than the one that was acknowledged.
    bool hasBegunAnew(const std::map<std::uint32_t, std::uint64_t>& versions) const {
        return std::ranges::any_of(versions, [&](const auto& table) {
            return table.second < acks_.acknowledged(table.first).value_or(0);
        });
    }

    /// Takes the acknowledgements back, but for other tables of the same announcements.
    void startAnew(bool isSameLog) {
        for (const auto& [tableId, version] : acks_.all()) {
            if (!isSameLog || isOwn(tableId))
                acks_.forget(tableId);
        }
        acks_.consumedIs(0);
    }

    /// This process's hardware is empty, so it always begins with all there is. The tail is read
    /// first; then the versions, those of tables that need others before those that are needed.
    void snapshot() {
        const std::uint64_t tail = log_->tail();
        auto versions = publishedVersions();
        const bool isSameLog = acks_.announceIdentity() == log_->identity();
        std::uint64_t at = isSameLog ? acks_.consumed() + 1 : 1;
        if (!isSameLog || hasBegunAnew(versions))
            startAnew(isSameLog);
        acks_.announceIdentityIs(log_->identity());
        programAll<PolicyCpuTcamActionTypes>(root_, versions[kActionTable]);
        programAll<PolicyCpuV4TcamEntryTypes>(root_, versions[kV4Table]);
        programAll<PolicyCpuV6TcamEntryTypes>(root_, versions[kV6Table]);
        for (const auto& [tableId, version] : versions)
            acks_.ackIs(tableId, version);
        // Tables that are not looked up are only in the log.
        if (tail > log_->slots())
            at = std::max(at, tail - log_->slots() + 1);
        while (at <= tail) {
            const auto change = log_->next(at);
            if (!change)
                break;
            if (!isOwn(change->tableId))
                acks_.ackIs(change->tableId, change->version);
            at = change->position + 1;
        }
        acks_.consumedIs(tail);
    }

    std::string root_;
    KivShimo::AckMapWriter acks_;
    KivShimo::Doorbell bell_;
    KivShimo::Sleeper sleeper_;
    std::optional<KivShimo::AnnounceLogReader> log_;
    std::optional<KivShimo::Waker> waker_;
};

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const bool once = arguments.size() == 2 && arguments[1] == "--once";
    if (arguments.size() != 1 && !once) {
        fmt::print(stderr, "usage: vorn-example-minimal-reader DIR [--once]\n");
        return 2;
    }
    try {
        MinimalReader(arguments[0]).run(once);
    } catch (const std::exception& error) {
        fmt::print(stderr, "vorn-example-minimal-reader: {}\n", error.what());
        return 4;
    }
    return 0;
}
