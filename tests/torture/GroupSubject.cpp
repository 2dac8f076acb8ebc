// What both sides of a group store: announcements and acknowledgements.
#include <fmt/format.h>

#include <array>
#include <set>
#include <utility>

#include "platform/brumo/Assert.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Paths.h"
#include "tests/torture/Subjects.h"

namespace Torture {

namespace {

constexpr const char* kPath = "group/log";
constexpr const char* kAcksPath = "group/acks";
constexpr std::uint64_t kSlots = 16;
constexpr std::array<KivShimo::NeededVersion, 5> kNeeded{
    {{1, 11}, {2, 12}, {3, 13}, {4, 14}, {5, 15}}};

class AnnounceSubject final : public Subject {
public:
    explicit AnnounceSubject(const std::string& folder) : log_(folder, kPath, kSlots) {}

    void append(std::uint64_t version) {
        Brumo::require(log_.append(7, version, kNeeded), "there is room");
    }
    std::string state() override {
        std::string text = fmt::format("tail {} wiped {}\n", log_.tail(), log_.wiped());
        const auto reader = KivShimo::AnnounceLogReader::open(log_.file());
        std::uint64_t position = 0;
        while (const auto next = reader->next(position + 1)) {
            text += fmt::format("  {}@{} needs {}\n", next->tableId, next->version,
                                next->needed.size());
            position = next->position;
        }
        return text;
    }
    void use() override { append(9); }

private:
    KivShimo::AnnounceLogWriter log_;
};

class AckSubject final : public Subject {
public:
    explicit AckSubject(const std::string& folder) : acks_(folder, kAcksPath) {}

    KivShimo::AckMapWriter& acks() { return acks_; }
    std::string state() override {
        std::string text = fmt::format("consumed {} log {} corruptions {}\n", acks_.consumed(),
                                       acks_.announceIdentity(), acks_.corruptions());
        for (const auto& [tableId, version] : acks_.all())
            text += fmt::format("  {}@{}\n", tableId, version);
        return text;
    }
    void use() override {
        const std::uint64_t before = acks_.acknowledged(1).value_or(0);
        Brumo::require(acks_.ackIs(1, before + 1), "goes on");
        Brumo::require(acks_.ackIs(77, 1), "a further table");
        Brumo::require(!acks_.ackIs(1, before), "never backwards");
    }

private:
    KivShimo::AckMapWriter acks_;
};

Sight readAnnouncements(const std::string& folder, std::uint64_t /*reclaimed*/) {
    const auto log = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(folder, kPath));
    Sight sight{log->tail(), {}, {}};
    std::uint64_t position = 0;
    while (const auto next = log->next(position + 1))
        position = next->position;
    if (position != sight.published)
        sight.wrong = "the tail does not end an announcement";
    return sight;
}

/// What is ever acknowledged of each table: no version is of two of them.
bool isOfTable(const KivShimo::Acknowledged& acknowledged) {
    static const std::set<std::pair<std::uint32_t, std::uint64_t>> kStored{
        {1, 3}, {1, 9}, {2, 4}, {3, 10}};
    return kStored.contains({acknowledged.tableId, acknowledged.version});
}

Sight readAcknowledgements(const std::string& folder, std::uint64_t /*reclaimed*/) {
    const auto acks = KivShimo::AckMapReader::open(KivShimo::tableFile(folder, kAcksPath));
    Sight sight{acks->consumed(), {}, {}};
    for (const auto& each :
         acks->all([](const KivShimo::CorruptionError& error) { throw error; })) {
        if (!isOfTable(each) || acks->acknowledged(each.tableId) != each.version)
            sight.wrong += fmt::format("{}@{} was never stored\n", each.tableId, each.version);
    }
    acks->announceIdentity();
    return sight;
}

}  // namespace

std::vector<Scenario> groupScenarios() {
    const auto announces = [](Subject& s) -> AnnounceSubject& {
        return static_cast<AnnounceSubject&>(s);
    };
    const auto acks = [](Subject& s) -> KivShimo::AckMapWriter& {
        return static_cast<AckSubject&>(s).acks();
    };
    const auto mountLog = [](const std::string& folder) {
        return std::make_unique<AnnounceSubject>(folder);
    };
    const auto mountAcks = [](const std::string& folder) {
        return std::make_unique<AckSubject>(folder);
    };
    const auto acknowledged = [acks](Subject& s) {
        acks(s).announceIdentityIs(5);
        acks(s).ackIs(1, 3);
        acks(s).ackIs(2, 4);
        acks(s).consumedIs(6);
    };
    const auto oneForgotten = [acks, acknowledged](Subject& s) {
        acknowledged(s);
        acks(s).forget(1);
    };
    return {
        {"announcement", mountLog, [announces](Subject& s) { announces(s).append(1); },
         [announces](Subject& s) { announces(s).append(2); }, readAnnouncements},
        {"acknowledgement", mountAcks, acknowledged, [acks](Subject& s) { acks(s).ackIs(1, 9); },
         readAcknowledgements},
        {"first acknowledgement of a table", mountAcks, acknowledged,
         [acks](Subject& s) { acks(s).ackIs(3, 10); }, readAcknowledgements},
        {"acknowledgement forgotten", mountAcks, acknowledged,
         [acks](Subject& s) { acks(s).forget(1); }, readAcknowledgements},
        {"first acknowledgement of a table in the row of a forgotten one", mountAcks, oneForgotten,
         [acks](Subject& s) { acks(s).ackIs(3, 10); }, readAcknowledgements},
        {"consumed position", mountAcks, acknowledged,
         [acks](Subject& s) { acks(s).consumedIs(8); }, readAcknowledgements},
    };
}

}  // namespace Torture
