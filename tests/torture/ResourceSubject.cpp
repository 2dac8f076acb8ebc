// A resource table and one of its clients: what it remembers over a restart.
#include <fmt/format.h>

#include "platform/asic/OrderedTableInterface.h"
#include "platform/brumo/Assert.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/Paths.h"
#include "platform/resources/CrpsIndexRequestResourceTable.h"
#include "platform/resources/ResourceFile.h"
#include "tests/torture/Subjects.h"

namespace Torture {

namespace {

constexpr const char* kName = "CrpsIndexRequest.CpuTrafficPolicyIngress";
constexpr std::uint32_t kPool = 8;

using Table = VornCountersLib::CrpsIndexRequestResourceTable;
using Client = Table::ClientInstance;
using HandlePtr = Brumo::Ptr<const VornCountersLib::CounterResourceHandle>;

class ResourceSubject final : public Subject {
public:
    explicit ResourceSubject(const std::string& folder) {
        KivShimo::EntityManager::capacityCeilingIs(16);
        KivShimo::EntityManager::rootIs(kSystem, true, folder);
        database_ = Brumo::make<Regdb::EntityManager>(kSystem, true);
        tables_ = Brumo::make<Asic::OrderedTableInterface>(database_, "VornPolicyCpu", loop_);
        const auto group = tables_->makeGroupIntf("VornPolicyCpuGroup", 0x2C08);
        table_ = Brumo::make<Table>(kName, database_, group, loop_, kPool);
        client_ = Brumo::make<Client>(table_);
    }

    HandlePtr request(std::uint32_t id) {
        const HandlePtr handle = client_->request({id}, nullptr);
        loop_.runUntilIdle();
        return handle;
    }
    void move(std::uint32_t id) {
        Brumo::require(table_->move({id}), "moved");
        loop_.runUntilIdle();
    }
    Client& client() { return *client_; }
    void keep(HandlePtr handle) { kept_ = std::move(handle); }
    const HandlePtr& kept() const { return kept_; }

    /// Which index a key has is what counts; versions may be used up without a change.
    std::string state() override {
        std::string text;
        for (const auto& info : table_->keys())
            text += fmt::format("key {} index {}\n", info.key, info.index);
        const auto pool = table_->pool();
        return text + fmt::format("used {} returning {} free {}\n", pool.used, pool.returning,
                                  pool.size - pool.used - pool.returning);
    }
    void use() override {
        table_->assertConsistent();
        const HandlePtr handle = request(99);
        Brumo::require(handle != nullptr, "answered");
        table_->sweepUnclaimed();
        loop_.runUntilIdle();
        table_->assertConsistent();
    }

private:
    Kiv::ManualEventLoop loop_;
    Brumo::Ptr<Regdb::EntityManager> database_;
    Brumo::Ptr<Asic::OrderedTableInterface> tables_;
    Brumo::Ptr<Table> table_;
    Brumo::Ptr<Client> client_;
    HandlePtr kept_;
};

Sight readRecords(const std::string& folder, std::uint64_t /*reclaimed*/) {
    using File = Asic::ResourceFile<VornCountersLib::CounterBinding>;
    const KivShimo::MapReader<File::Record> reader(
        KivShimo::tableFile(folder, fmt::format("resources/VornCountersLib/{}", kName)),
        File::typeName(), File::kCollection);
    try {
        reader.forEach([](const File::Record&) {});
    } catch (const KivShimo::BusyError&) {
        // One of them was being stored.
    }
    return {reader.scratchpad(), {}};
}

}  // namespace

std::vector<Scenario> resourceScenarios() {
    using S = ResourceSubject;
    const auto as = [](Subject& subject) -> S& { return static_cast<S&>(subject); };
    const auto mount = [](const std::string& folder) { return std::make_unique<S>(folder); };
    const auto used = [as](Subject& subject) {
        S& s = as(subject);
        s.keep(s.request(1));
        s.client().ackUpdate(s.kept(), s.kept()->updateVersion(), nullptr);
    };
    const auto moved = [as, used](Subject& subject) {
        used(subject);
        as(subject).move(1);
    };
    return {
        {"resource: request", mount, used, [as](Subject& s) { as(s).keep(as(s).request(2)); },
         readRecords},
        {"resource: move", mount, used, [as](Subject& s) { as(s).move(1); }, readRecords},
        {"resource: acknowledged update", mount, moved,
         [as](Subject& subject) {
             S& s = as(subject);
             s.client().ackUpdate(s.kept(), s.kept()->updateVersion(), nullptr);
         },
         readRecords},
        {"resource: release", mount, used,
         [as](Subject& s) { as(s).client().release(as(s).kept(), nullptr); }, readRecords},
    };
}

}  // namespace Torture
