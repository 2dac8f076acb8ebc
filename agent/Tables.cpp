#include "agent/Tables.h"

#include <filesystem>
#include <memory>
#include <system_error>

#include "catalogue/PolicyCpuTcamAction.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/regdb/EntityManager.h"
#include "platform/ringtrace/ProcessRing.h"

namespace Agent {

namespace {

/// Messages that the ring trace keeps, 64 bytes each.
constexpr std::size_t kRingSlots = 1024;

/// Begins the process's ring trace; that of the process before stays beside it.
void startRing(const std::string& file) {
    std::error_code noneBefore;
    std::filesystem::rename(file, file + ".before", noneBefore);
    RingTrace::processRingIs(std::make_shared<RingTrace::Ring>(file, kRingSlots));
}

}  // namespace

Tables::Tables(const Options& options, const Plugin& plugin, Kiv::EventLoop& loop,
               const std::string& system) {
    // Both: which of them is used depends on the environment.
    KivShimo::EntityManager::rootIs(system, true, options.stateDirectory);
    KivShimo::EntityManager::rootIs(system, false, options.stateDirectory);
    if (options.capacity != 0)
        KivShimo::EntityManager::capacityCeilingIs(options.capacity);

    const auto database = Brumo::make<Regdb::EntityManager>(system, true);
    relaunch_ = Brumo::make<Asic::GenId>();
    database->entityIs(
        "hardware/crest/agent/relaunch/config/" + std::string(VornPolicyCpu::kAgentName),
        relaunch_);
    interface_ = Brumo::make<Asic::OrderedTableInterface>(
        database, std::string(VornPolicyCpu::kAgentName), loop);
    group_ = interface_->makeGroupIntf(std::string(VornPolicyCpu::kGroupName),
                                       ActionTypes::kTableId.agentAndGroupId());
    // The group's lock is ours now: no other agent's ring is touched.
    startRing(options.stateDirectory + "/agent.ring");
    makeResourceTables(options, loop);

    actions_ = plugin.actions(interface_);
    ipv4_ = plugin.ipv4(interface_);
    ipv6_ = plugin.ipv6(interface_);
    for (const Asic::UnitId unit : options.units) {
        units_.push_back({unit, actions_->makeTable(unit, false), ipv4_->makeTable(unit, false),
                          ipv6_->makeTable(unit, false)});
    }
    ipv4_->reconcile();
    ipv6_->reconcile();
    actions_->reconcile();
}

void Tables::makeResourceTables(const Options& options, Kiv::EventLoop& loop) {
    // By the names under which the action table looks for them.
    const auto make = [&]<class Linkage>(Brumo::Ptr<typename Linkage::ResourceTable>& table,
                                         std::uint32_t capacity) {
        const std::string name(Linkage::kResourceTable);
        table = Brumo::make<typename Linkage::ResourceTable>(name, interface_->entityManager(),
                                                             group_, loop, capacity);
        interface_->resourceTableIs(std::string(Linkage::kResourceLibrary), name, table);
    };
    make.operator()<VornPolicyCpu::CrpsIndexRequestBinding>(counters_, options.counters);
    make.operator()<VornPolicyCpu::PolicerIndexRequestBinding>(policers_, options.policers);
}

void Tables::forEachTable(const std::function<void(const Asic::OrderedSwTable&)>& visit) const {
    for (const UnitTables& unit : units_) {
        visit(*unit.actions);
        visit(*unit.ipv4);
        visit(*unit.ipv6);
    }
}

Tables::LogFigures Tables::log(Asic::SwTableId table) const {
    const auto figures = [](const auto& family) {
        const auto fill = family->logFill();
        return LogFigures{family->logVersion(), fill.records, fill.capacity};
    };
    if (table == ActionTypes::kTableId)
        return figures(actions_);
    return table == V4Types::kTableId ? figures(ipv4_) : figures(ipv6_);
}

Tables::~Tables() {
    RingTrace::processRingIs(nullptr);
    units_.clear();
    auto& families = Asic::SwTableInterfacesSingleton::instance();
    const auto end = [&](auto& family, const std::string& name) {
        if (family == nullptr)
            return;
        family->onDelete();
        family = nullptr;
        families.swTableIntfDel(name);
    };
    end(ipv6_, familyName<V6Types>());
    end(ipv4_, familyName<V4Types>());
    end(actions_, familyName<ActionTypes>());
}

}  // namespace Agent
