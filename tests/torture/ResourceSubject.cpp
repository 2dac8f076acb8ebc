// Resource tables and one client of each: what they remember over a restart.
#include <fmt/format.h>

#include <algorithm>

#include "platform/asic/Constants.h"
#include "platform/asic/OrderedTableInterface.h"
#include "platform/brumo/Assert.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/Paths.h"
#include "platform/resources/CrpsIndexRequestResourceTable.h"
#include "platform/resources/PolicerIndexRequestResourceTable.h"
#include "platform/resources/ResourceFile.h"
#include "tests/support/ResourceTables.h"
#include "tests/torture/Subjects.h"
#include "types/Constants.h"

namespace Torture {

namespace {

constexpr std::uint32_t kPool = 8;
constexpr Asic::SwTableId kUsersTable{0x2C080403};
constexpr Asic::LogVersion kUsersVersion{5};  ///< what that table has handed out

using TestSupport::CounterIndexes;
using TestSupport::PolicerIndexes;

/// A change of the table that uses the resources; it is on its way until it is told otherwise.
class UsersChange final : public Asic::DependencyEntryHandle {
public:
    Asic::SwTableId tableId() const override { return kUsersTable; }
    Asic::TableVersion entryTableVersion() const override { return {kUsersTable, {}}; }
};

template <class R>
std::string resourceFileOf(const std::string& folder) {
    return KivShimo::tableFile(folder,
                               fmt::format("resources/{}/{}", R::Binding::kLibrary, R::kName));
}

template <class R>
KivShimo::MapReader<Asic::ResourceRecord<typename R::Binding>> resourceReader(
    const std::string& folder) {
    using File = Asic::ResourceFile<typename R::Binding>;
    return {resourceFileOf<R>(folder), File::typeName(), File::kCollection};
}

/// The last version that the files below the folder have told anybody; 0 without files.
template <class R>
std::uint64_t lastToldVersion(const std::string& folder) {
    std::uint64_t last = 0;
    try {
        last = resourceReader<R>(folder).scratchpad();
    } catch (const KivShimo::MountError&) {
        return 0;
    }
    const auto log = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
        folder, Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName())));
    std::uint64_t position = 0;
    while (const auto next = log->next(position + 1)) {
        if (next->tableId == R::Table::kTableId.whole())
            last = std::max(last, next->version);
        position = next->position;
    }
    return last;
}

template <class R>
class ResourceSubject final : public Subject {
public:
    using Table = typename R::Table;
    using Client = typename Table::ClientInstance;
    using HandlePtr = Brumo::Ptr<const typename Table::ResourceHandle>;

    /// A table of users is no more than a note for a later process: `isNoteTold` says whether it is
    /// part of the state.
    ResourceSubject(std::string folder, bool isNoteTold)
        : folder_(std::move(folder)), isNoteTold_(isNoteTold), told_(lastToldVersion<R>(folder_)) {
        KivShimo::EntityManager::capacityCeilingIs(16);
        KivShimo::EntityManager::rootIs(kSystem, true, folder_);
        database_ = Brumo::make<Regdb::EntityManager>(kSystem, true);
        tables_ = Brumo::make<Asic::OrderedTableInterface>(database_, "VornPolicyCpu", loop_);
        group_ = tables_->makeGroupIntf("VornPolicyCpuGroup", 0x2C08);
        table_ = Brumo::make<Table>(R::kName, database_, group_, loop_, kPool);
        client_ = Brumo::make<Client>(table_);
    }

    /// Its answer is still to come.
    void ask(std::uint32_t id, std::uint32_t rate = 1000) {
        kept_ = R::request(*client_, id, rate);
    }
    void turn() { loop_.runUntilIdle(); }
    void request(std::uint32_t id, std::uint32_t rate = 1000) {
        ask(id, rate);
        turn();
    }
    void move(std::uint32_t id) {
        Brumo::require(table_->move({id}), "moved");
        turn();
    }
    void usersHandOut() { group_->addLatestVersion(kUsersTable, kUsersVersion); }
    const Brumo::Ptr<UsersChange>& usersChange() const { return change_; }
    void acknowledge(const Brumo::Ptr<UsersChange>& change) {
        client_->ackUpdate(kept_, kept_->updateVersion(), change);
    }
    void release(const Brumo::Ptr<UsersChange>& change) { client_->release(kept_, change); }

    /// Versions of the table itself may be used up without a change; what is remembered has one.
    std::string state() override {
        std::string text;
        for (const auto& info : table_->keys())
            text += fmt::format("key {} index {}\n", info.key, info.index);
        const auto records = resourceReader<R>(folder_);
        for (std::uint32_t index = 0; index < kPool; ++index) {
            const auto record = records.find({index});
            if (!record.has_value())
                continue;
            text += fmt::format("  {}: {} @{} {} {}", index, record->requestKey, record->version,
                                static_cast<unsigned>(record->state), record->clientData.toText());
            text += isNoteTold_ ? fmt::format(" of {:x}\n", record->userTable) : "\n";
        }
        const auto pool = table_->pool();
        return text + fmt::format("used {} returning {} free {}\n", pool.used, pool.returning,
                                  pool.size - pool.used - pool.returning);
    }
    void use() override {
        using Brumo::require;
        table_->assertConsistent();
        const std::uint32_t noted = usedByTable();
        request(99);
        require(kept_ != nullptr, "answered");
        require(kept_->neededVersions().at(0).version.value > told_, "versions go on");
        table_->sweepUnclaimed();
        turn();
        table_->assertConsistent();
        require(table_->pool().returning >= noted, "hardware may use them: they are not free");
    }

private:
    std::uint32_t usedByTable() const {
        std::uint32_t count = 0;
        resourceReader<R>(folder_).forEach(
            [&](const auto& record) { count += record.userTable == kUsersTable.whole() ? 1 : 0; });
        return count;
    }

    std::string folder_;
    bool isNoteTold_;
    std::uint64_t told_;  ///< by the process before
    Kiv::ManualEventLoop loop_;
    Brumo::Ptr<Regdb::EntityManager> database_;
    Brumo::Ptr<Asic::OrderedTableInterface> tables_;
    Brumo::Ptr<Asic::GroupInterface> group_;
    Brumo::Ptr<Table> table_;
    Brumo::Ptr<Client> client_;
    HandlePtr kept_;
    Brumo::Ptr<UsersChange> change_ = Brumo::make<UsersChange>();
};

template <class R>
Sight readRecords(const std::string& folder, std::uint64_t /*reclaimed*/) {
    const auto reader = resourceReader<R>(folder);
    Sight sight{reader.scratchpad(), {}, {}};
    try {
        reader.forEach([&](const auto& record) {
            if (record.version > sight.published)
                sight.wrong += fmt::format("{} is beyond the last version\n", record.version);
        });
    } catch (const KivShimo::BusyError&) {
        // One of them was being stored.
    }
    return sight;
}

template <class R>
struct ResourceScenarios {
    using S = ResourceSubject<R>;
    using Step = std::function<void(S&)>;

    static void add(std::vector<Scenario>& all, const char* name, Step prepare, Step change,
                    bool isNoteTold = true) {
        const auto as = [](Subject& subject) -> S& { return static_cast<S&>(subject); };
        all.push_back({fmt::format("{}: {}", R::kTitle, name),
                       [isNoteTold](const std::string& folder) {
                           return std::make_unique<S>(folder, isNoteTold);
                       },
                       [as, prepare = std::move(prepare)](Subject& s) { prepare(as(s)); },
                       [as, change = std::move(change)](Subject& s) { change(as(s)); },
                       readRecords<R>});
    }

    static void used(S& s) {
        s.usersHandOut();
        s.request(1);
        s.acknowledge(nullptr);
    }
    static void usedByChange(S& s) {
        s.usersHandOut();
        s.request(1);
        s.acknowledge(s.usersChange());
    }
    static void moved(S& s) {
        used(s);
        s.move(1);
    }
    static void returning(S& s) {
        usedByChange(s);
        s.release(s.usersChange());
    }

    static void addAll(std::vector<Scenario>& all) {
        const auto release = [](S& s) { s.release(s.usersChange()); };
        add(all, "request", used, [](S& s) { s.request(2); });
        add(all, "move", used, [](S& s) { s.move(1); });
        add(all, "acknowledged update", moved, [](S& s) { s.acknowledge(nullptr); });
        add(all, "release", used, [](S& s) { s.release(nullptr); });
        add(all, "update acknowledged with a change", moved,
            [](S& s) { s.acknowledge(s.usersChange()); });
        add(all, "release with a change", usedByChange, release);
        // Two stores: whose change it is, and that the index returns.
        add(all, "release with the first change", used, release, false);
        add(all, "return that ends", returning,
            [](S& s) { s.usersChange()->entryStateIs(Asic::EntryState::complete); });
        // Two changes: the index is in use again, and the request is answered.
        add(all, "request that revives a returning index", returning, [](S& s) { s.ask(1); });
        add(
            all, "answer to a request that revived an index",
            [](S& s) {
                returning(s);
                s.ask(1);
            },
            [](S& s) { s.turn(); });
    }
};

}  // namespace

std::vector<Scenario> resourceScenarios() {
    std::vector<Scenario> all;
    ResourceScenarios<CounterIndexes>::addAll(all);
    ResourceScenarios<PolicerIndexes>::addAll(all);
    ResourceScenarios<PolicerIndexes>::add(all, "request with other data",
                                           ResourceScenarios<PolicerIndexes>::used,
                                           [](auto& s) { s.request(1, 2000); });
    return all;
}

}  // namespace Torture
