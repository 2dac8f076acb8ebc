// The bodies of Interface; included where a table is instantiated.
#pragma once

#include <algorithm>

#include "catalogue/Modules.h"
#include "entrylog/ShimoManager.h"
#include "interface/Interface.h"
#include "platform/asic/Constants.h"
#include "platform/brumo/Assert.h"
#include "platform/ringtrace/ProcessRing.h"

namespace VornPolicyCpu {

template <class B>
const std::string& Interface<B>::registryName() {
    static const std::string name = qualifiedClassName<typename B::Types>("Interface");
    return name;
}

template <class B>
Brumo::Ptr<Interface<B>> Interface<B>::getIntf(
    const Brumo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf) {
    auto& singleton = Asic::SwTableInterfacesSingleton::instance();
    if (singleton.swTableIntfHas(registryName())) {
        return Brumo::dynamicCast<Interface>(singleton.swTableIntf(registryName()));
    }
    return Brumo::make<Interface>(orderedTableIntf);
}

template <class B>
Interface<B>::Interface(Brumo::Ptr<Asic::OrderedTableInterface> orderedTableIntf)
    : TableFamily<typename B::Types>(std::move(orderedTableIntf)),
      tableName_(B::Types::kName),
      groupName_(kGroupName),
      agentName_(kAgentName),
      tableNamespace_(kTableNamespace) {
    handleInitialized();
}

/// The group refers to the set and the set's tables to the group: this is where that ends.
template <class B>
Interface<B>::~Interface() {
    const auto group = this->orderedTableIntf()->groupIntf(
        Asic::Constants::canonicalizeGroupName(groupName_, agentName_));
    if (group != nullptr && swTableSet_ != nullptr)
        group->swTableSetDel(tableId());
}

template <class B>
const Kiv::TypeData& Interface<B>::typeData() const {
    return interfaceTypeData<B>();
}

template <class B>
void Interface<B>::handleInitialized() {
    Traces<B>::interface(8, "");
    auto& singleton = Asic::SwTableInterfacesSingleton::instance();
    if (singleton.swTableIntfHas(registryName())) {
        Brumo::require(false, fmt::format("!singleton->swTableIntfHas( \"{}\" )", registryName()),
                       "Interface already created");
    }
    const auto& intf = this->orderedTableIntf();
    intf->makeGroupIntf(groupName_, tableId().agentAndGroupId());
    const auto group = groupIntf();
    Traces<B>::interface(3, " Creating entry log for {}", tableId());
    entryLogIs(tableId(), intf->entityManager(), group, agentName_);
    swTableStatusIs(tableId());
    catchUpWithAcknowledged(*group);
    Traces<B>::interface(2, " Entry log created for table id: {} at version: {}", tableId(),
                         entryLog_->tableVersion());
    swTableSetIs(tableId(), swTableStatus_);
    group->swTableSetIs(swTableSet_);
    intf->swTableIntfIs(registryName(), this);
    singleton.swTableIntfIs(registryName(), Brumo::Ptr<Asic::TableInterfaceBase>(this));
}

/// Cleans the log up to what the hardware side has consumed while there was no agent.
template <class B>
void Interface<B>::catchUpWithAcknowledged(Asic::GroupInterface& group) {
    const auto version = acknowledgedVersion(group);
    if (!version.has_value())
        return;
    entryLog_->cleanupEntryLog(*version);
    Traces<B>::interface.in("handleInitialized", 3, " Cleaned entry log until table version: {}",
                            *version);
    if (entryLog_->tableVersion() > *version) {
        Traces<B>::interface.in("handleInitialized", 2, " Turning ON pendingHwWrites");
        swTableStatus_->pendingHwWritesIs(true);
    }
}

template <class B>
Brumo::Ptr<Asic::GroupInterface> Interface<B>::groupIntf() const {
    const auto group = this->orderedTableIntf()->groupIntf(
        Asic::Constants::canonicalizeGroupName(groupName_, agentName_));
    Brumo::require(group != nullptr, "groupIntf");
    return group;
}

/// What the hardware side's map says of this family; nothing when it does not know it. A corrupt
/// map is reported and counts as its default value, version 0.
template <class B>
std::optional<Asic::LogVersion> Interface<B>::acknowledgedVersion(
    const Asic::GroupInterface& group) const {
    try {
        return group.tableVersionInMap(tableId());
    } catch (const KivShimo::CorruptionError& error) {
        group.doCorruptionDetected(error.what());
        return Asic::LogVersion{};
    }
}

template <class B>
auto Interface<B>::makeSwTable(Asic::UnitId unitId, const HelperPtr& swTableHelper, bool reset)
    -> SwTablePtr {
    Traces<B>::interface(8, "unitId: {}", unitId);
    const auto group = groupIntf();
    Brumo::require(group->swTableSetHas(tableId()), "groupIntf->swTableSetHas( tableId() )");
    if (swTableSet_->swTableHas(unitId))
        return existingTable(unitId, swTableHelper, reset);

    // A process that has taken acknowledgements up knows of them also when the map is gone.
    const Asic::LogVersion version =
        std::max(acknowledgedVersion(*group).value_or(Asic::LogVersion{}),
                 group->acknowledgedVersion(tableId()));
    entryLog_->mountShimoConfig(unitId, version);
    const auto name = Brumo::make<const Asic::CanonicalTableName>(Asic::TableType::ordered,
                                                                  tableName_, tableNamespace_);
    const SwTablePtr table = Brumo::make<typename B::SwTable>(
        name, tableId(), unitId, swTableSet_.get(), entryLog_, group->groupResolver());
    if (swTableHelper != nullptr)
        table->swTableHelperIs(swTableHelper);
    table->statusIs(swTableStatus_);
    installLinkages(*table, typename B::Linkages{});
    if (reset) {
        Traces<B>::interface(2, " Clearing entries for table: {}, unitId: {}", tableName_, unitId);
        table->clearTable(false);
    } else {
        table->restoreEntries();
        const std::uint32_t restored = table->entrys();
        Traces<B>::interface(2, " Restored {} entries for table: {}, unitId: {}", restored,
                             tableName_, unitId);
        RingTrace::record(" Restored {} entries for table: " + tableName_ + ", unitId: {}",
                          restored, unitId.value);
    }
    swTableSet_->swTableIs(table);
    table->tableStatusVersion(version);
    return table;
}

template <class B>
auto Interface<B>::existingTable(Asic::UnitId unitId, const HelperPtr& swTableHelper, bool reset)
    -> SwTablePtr {
    Traces<B>::interface.in("makeSwTable", 3, "swTable with unitId: {} exists", unitId);
    const SwTablePtr existing =
        Brumo::dynamicCast<typename B::SwTable>(swTableSet_->swTable(unitId));
    Brumo::require(existing != nullptr, "existingTbl");
    if (swTableHelper != nullptr) {
        Traces<B>::interface.in("makeSwTable", 2, "Update software table helper");
        existing->swTableHelperIs(swTableHelper);
    }
    if (reset) {
        Traces<B>::interface.in("makeSwTable", 2, " Clearing entries for table id: {}", tableId());
        existing->clearTable(false);
    }
    return existing;
}

template <class B>
template <class L>
void Interface<B>::installLinkage(typename B::SwTable& table) {
    const auto resourceTable =
        Brumo::dynamicCast<typename L::ResourceTable>(this->orderedTableIntf()->resourceTable(
            std::string(L::kResourceLibrary), std::string(L::kResourceTable)));
    Brumo::require(resourceTable != nullptr, "resourceTable",
                   fmt::format("{}::{}", L::kResourceLibrary, L::kResourceTable));
    const auto client = resourceTable->makeClientInstance();
    const std::string resource = fmt::format("{}::{}", L::kResourceLibrary, L::kResourceTable);
    Traces<B>::interface.in("makeSwTable", 2,
                            " ResourceTable: {} started or restored with {} entries", resource,
                            resourceTable->entries());
    RingTrace::record(" ResourceTable: " + resource + " started or restored with {} entries",
                      resourceTable->entries());
    table.template linkageIs<L>(Brumo::make<Linkage<B, L>>(&table, client));
}

template <class B>
void Interface<B>::reconcile() {
    Traces<B>::interface(8, "");
    const auto shimoManager = shimoManagerOf(*this->orderedTableIntf()->entityManager());
    const std::string base = Asic::Constants::canonicalGroupTableConfigShimoPathBase(
        Asic::Constants::canonicalizeGroupName(groupName_, agentName_));
    const auto entities = shimoManager->entitiesBelow(base);
    Traces<B>::interface(3, " No. of config entities found: {}, in shimo path: {}", entities.size(),
                         base);
    for (const std::string& path : entities) {
        const auto unit = Asic::Constants::getUnitIdFromConfigPath(path);
        if (!unit.has_value() || swTableSet_->swTableHas(*unit))
            continue;
        Traces<B>::interface(3, " Found inactive unit id: {} ", *unit);
        makeSwTable(*unit, nullptr, true);
    }
}

template <class B>
void Interface<B>::onDelete() {
    Traces<B>::interface(2, " onDelete ");
    this->orderedTableIntf()->swTableIntfDel(registryName());
}

template <class B>
void Interface<B>::entryLogIs(Asic::SwTableId tableId,
                              const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                              const Brumo::Ptr<Asic::GroupInterface>& groupInterface,
                              const Brumo::String& agentName) {
    entryLog_ = entryLogFactory<B>(tableId, entityManager, groupInterface, agentName);
}

template <class B>
void Interface<B>::swTableStatusIs(Asic::SwTableId tableId) {
    swTableStatus_ = Brumo::make<Asic::OrderedSwTableStatus>(tableId);
}

template <class B>
void Interface<B>::swTableSetIs(Asic::SwTableId tableId,
                                const Brumo::Ptr<Asic::OrderedSwTableStatus>& swTableStatus) {
    swTableSet_ = Brumo::make<Asic::OrderedSwTableSet>(tableId, swTableStatus);
}

}  // namespace VornPolicyCpu
