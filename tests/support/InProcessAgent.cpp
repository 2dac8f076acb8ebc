#include "tests/support/InProcessAgent.h"

#include <unistd.h>
#include <atomic>

#include "platform/asic/Constants.h"
#include "types/Constants.h"

namespace TestSupport {

namespace {

std::string freshSystemName() {
    static std::atomic<unsigned> next{0};
    return "test-" + std::to_string(getpid()) + "-" + std::to_string(next++);
}

}  // namespace

InProcessAgent::InProcessAgent(const Options& options)
    : options_(options), systemName_(freshSystemName()) {
    start();
}

InProcessAgent::~InProcessAgent() {
    stop();
}

void InProcessAgent::start() {
    KivShimo::EntityManager::capacityCeilingIs(options_.capacityCeiling);
    KivShimo::EntityManager::rootIs(systemName_, true, dir_.path());
    stateDatabase_ = Brumo::make<Regdb::EntityManager>(systemName_, true);
    intf_ = Brumo::make<Asic::OrderedTableInterface>(stateDatabase_, "VornPolicyCpu", loop_);
    const auto groupInterface = group();
    counters_ = Brumo::make<VornCountersLib::CrpsIndexRequestResourceTable>(
        "CrpsIndexRequest.CpuTrafficPolicyIngress", stateDatabase_, groupInterface, loop_,
        options_.counters);
    policers_ = Brumo::make<VornPolicerLib::PolicerIndexRequestResourceTable>(
        "PolicerIndexRequest.VornPolicyCpu", stateDatabase_, groupInterface, loop_,
        options_.policers);
    intf_->resourceTableIs("VornCountersLib", "CrpsIndexRequest.CpuTrafficPolicyIngress",
                           counters_);
    intf_->resourceTableIs("VornPolicerLib", "PolicerIndexRequest.VornPolicyCpu", policers_);
}

void endFamily(const std::string& registryName) {
    auto& singleton = Asic::SwTableInterfacesSingleton::instance();
    singleton.swTableIntf(registryName)->onDelete();
    singleton.swTableIntfDel(registryName);
}

void InProcessAgent::stop() {
    const auto drop = [](auto& family) {
        if (family == nullptr)
            return;
        endFamily(family->registryName());
        family = nullptr;
    };
    drop(v6Entries_);
    drop(v4Entries_);
    drop(actions_);
    loop_.clear();
    policers_ = nullptr;
    counters_ = nullptr;
    intf_ = nullptr;
    stateDatabase_ = nullptr;
    KivShimo::EntityManager::forget(systemName_);
}

void InProcessAgent::restart() {
    stop();
    start();
}

void InProcessAgent::settle() {
    loop_.runUntilIdle();
}

const Brumo::Ptr<VornPolicyCpu::PolicyCpuTcamActionInterface>& InProcessAgent::actions() {
    if (actions_ == nullptr)
        actions_ = VornPolicyCpu::PolicyCpuTcamActionInterface::getIntf(intf_);
    return actions_;
}

const Brumo::Ptr<VornPolicyCpu::PolicyCpuV4TcamEntryInterface>& InProcessAgent::v4Entries() {
    if (v4Entries_ == nullptr) {
        v4Entries_ = VornPolicyCpu::PolicyCpuV4TcamEntryInterface::getIntf(intf_);
    }
    return v4Entries_;
}

const Brumo::Ptr<VornPolicyCpu::PolicyCpuV6TcamEntryInterface>& InProcessAgent::v6Entries() {
    if (v6Entries_ == nullptr) {
        v6Entries_ = VornPolicyCpu::PolicyCpuV6TcamEntryInterface::getIntf(intf_);
    }
    return v6Entries_;
}

Brumo::Ptr<Asic::GroupInterface> InProcessAgent::group() {
    return intf_->makeGroupIntf("VornPolicyCpuGroup", 0x2C08);
}

KivShimo::AckMapWriter& InProcessAgent::hardware() {
    if (!hardware_.has_value()) {
        hardware_.emplace(dir_.path(), Asic::Constants::acknowledgementsPath(
                                           VornPolicyCpu::canonicalGroupName()));
    }
    return *hardware_;
}

void InProcessAgent::acknowledge(Asic::SwTableId tableId, std::uint64_t version) {
    hardware().ackIs(tableId.whole(), version);
    group()->acknowledgementsArrived();
}

void InProcessAgent::acknowledgeAll() {
    for (const std::uint32_t tableId :
         {0x2C080501U, 0x2C080502U, 0x2C080403U, 0x2C080404U, 0x2C080405U}) {
        const auto version = group()->announcedVersion(Asic::SwTableId(tableId));
        if (version.value != 0)
            hardware().ackIs(tableId, version.value);
    }
    group()->acknowledgementsArrived();
}

VornPolicyCpu::PolicyCpuTcamActionEntryKey actionKey(std::uint32_t id) {
    return {id, 0, {}};
}

VornPolicyCpu::PolicyCpuTcamActionEntry actionEntry(std::uint32_t id, std::uint32_t counter,
                                                    std::uint32_t policer) {
    VornPolicyCpu::PolicyCpuTcamActionEntry entry;
    entry.key = actionKey(id);
    entry.counterRequestKey.requestId = counter;
    entry.policerRequestKey.requestId = policer;
    if (policer != 0) {
        entry.policerClientData.rate = 1000;
        entry.policerClientData.burst = 100;
        entry.policerClientData.mode = VornPolicerLib::PolicerMode::packets;
    }
    entry.name = VornPolicyCpu::fixedText<18>("action-" + std::to_string(id));
    return entry;
}

VornPolicyCpu::MatchKey matchKey(std::uint32_t rule) {
    return {rule, 0};
}

VornPolicyCpu::PolicyCpuV4TcamEntryEntry v4Entry(std::uint32_t rule, std::uint32_t priority) {
    VornPolicyCpu::PolicyCpuV4TcamEntryEntry entry;
    entry.key = matchKey(rule);
    entry.priority = priority;
    return entry;
}

VornPolicyCpu::PolicyCpuV6TcamEntryEntry v6Entry(std::uint32_t rule, std::uint32_t priority) {
    VornPolicyCpu::PolicyCpuV6TcamEntryEntry entry;
    entry.key = matchKey(rule);
    entry.priority = priority;
    return entry;
}

}  // namespace TestSupport
