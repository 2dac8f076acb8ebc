// The agent-facing object of a table family: creates and registers the family, and makes the tables
// of its units.
//
// Event thread only. One a family and process; the process-wide registry keeps it.
//
// What always holds:
//  1. At most one interface of a family exists in a process.
//  2. A unit has at most one table; making it again returns the same one.
//  3. A table's configuration is mounted, and its linkages are installed, before any entry is
//     restored or written.
#pragma once

#include "catalogue/TableFamily.h"
#include "platform/brumo/String.h"
#include "swtable/SwTable.h"

namespace VornPolicyCpu {

template <class B>
class Interface final : public TableFamily<typename B::Types> {
public:
    using SwTablePtr = Brumo::Ptr<typename B::SwTable>;
    using HelperPtr = Brumo::Ptr<SwTableHelperBase<B>>;

    /// The family's interface, made on the first call. Throws KivShimo::MountError.
    static Brumo::Ptr<Interface> getIntf(
        const Brumo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf);
    /// "VornPolicyCpu::" and the class's name.
    static const std::string& registryName();

    explicit Interface(Brumo::Ptr<Asic::OrderedTableInterface> orderedTableIntf);
    ~Interface() override;

    const Kiv::TypeData& typeData() const override;

    /// Makes a unit's table, restored or, with `reset`, cleared. `swTableHelper` may be null: then
    /// the hooks are the default ones, or those that an existing table has.
    SwTablePtr makeSwTable(Asic::UnitId unitId, const HelperPtr& swTableHelper, bool reset);
    void reconcile() override;
    void onDelete() override;

    Brumo::Ptr<TableOperations<typename B::Types>> makeTable(Asic::UnitId unit,
                                                             bool reset) override {
        return makeSwTable(unit, nullptr, reset);
    }
    Asic::LogVersion logVersion() const override { return entryLog_->tableVersion(); }
    typename TableFamily<typename B::Types>::LogFill logFill() const override {
        return {entryLog_->entryLogConfigs(), entryLog_->entryLogConfigCapacity()};
    }

    Asic::SwTableId tableId() const { return B::kTableId; }
    const Brumo::String& tableName() const { return tableName_; }
    const Brumo::String& groupName() const { return groupName_; }
    const Brumo::String& agentName() const { return agentName_; }
    const Brumo::String& tableNamespace() const { return tableNamespace_; }

    const Brumo::Ptr<EntryLog<B>>& entryLog() const { return entryLog_; }
    void entryLogIs(Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                    const Brumo::Ptr<Asic::GroupInterface>& groupInterface,
                    const Brumo::String& agentName);
    void entryLogDel() { entryLog_ = nullptr; }
    const Brumo::Ptr<Asic::OrderedSwTableStatus>& swTableStatus() const { return swTableStatus_; }
    void swTableStatusIs(Asic::SwTableId tableId);
    void swTableStatusDel() { swTableStatus_ = nullptr; }
    const Brumo::Ptr<Asic::OrderedSwTableSet>& swTableSet() const { return swTableSet_; }
    void swTableSetIs(Asic::SwTableId tableId,
                      const Brumo::Ptr<Asic::OrderedSwTableStatus>& swTableStatus);
    void swTableSetDel() { swTableSet_ = nullptr; }

private:
    void handleInitialized();
    void catchUpWithAcknowledged(Asic::GroupInterface& group);
    Brumo::Ptr<Asic::GroupInterface> groupIntf() const;
    std::optional<Asic::LogVersion> acknowledgedVersion(const Asic::GroupInterface& group) const;
    SwTablePtr existingTable(Asic::UnitId unitId, const HelperPtr& swTableHelper, bool reset);
    template <class L>
    void installLinkage(typename B::SwTable& table);
    template <class... L>
    void installLinkages(typename B::SwTable& table, LinkageList<L...>) {
        (installLinkage<L>(table), ...);
    }

    Brumo::String tableName_;
    Brumo::String groupName_;
    Brumo::String agentName_;
    Brumo::String tableNamespace_;
    Brumo::Ptr<EntryLog<B>> entryLog_;
    Brumo::Ptr<Asic::OrderedSwTableStatus> swTableStatus_;
    Brumo::Ptr<Asic::OrderedSwTableSet> swTableSet_;
};

}  // namespace VornPolicyCpu
