// The tables of a family, one a unit, and their common status.
//
// Event thread only. The interface of the family owns the set; the group interface refers to it.
#pragma once

#include <map>

#include "platform/asic/SwTable.h"

namespace Asic {

/// The tables of a family by unit.
class OrderedSwTableSet final : public Kiv::Entity {
public:
    OrderedSwTableSet(SwTableId tableId, Brumo::Ptr<OrderedSwTableStatus> status)
        : tableId_(tableId), status_(std::move(status)) {}

    ~OrderedSwTableSet() override {
        for (const auto& [unit, table] : tables_)
            table->tableSetDel();
    }

    SwTableId tableId() const { return tableId_; }
    bool swTableHas(UnitId unit) const { return tables_.contains(unit); }
    /// Null when there is none.
    Brumo::Ptr<OrderedSwTable> swTable(UnitId unit) const {
        const auto found = tables_.find(unit);
        return found == tables_.end() ? nullptr : found->second;
    }
    void swTableIs(const Brumo::Ptr<OrderedSwTable>& table) { tables_[table->unitId()] = table; }
    void swTableDel(UnitId unit) { tables_.erase(unit); }
    const std::map<UnitId, Brumo::Ptr<OrderedSwTable>>& swTables() const { return tables_; }

    /// Recomputes the family's pending-writes status.
    void maybeUpdatePendingHwWrites() {
        if (status_ == nullptr)
            return;
        for (const auto& [unit, table] : tables_) {
            if (table->hasPendingHwWrites()) {
                status_->pendingHwWritesIs(true);
                return;
            }
        }
        if (!tables_.empty())
            status_->pendingHwWritesIs(false);
    }

private:
    SwTableId tableId_;
    Brumo::Ptr<OrderedSwTableStatus> status_;
    std::map<UnitId, Brumo::Ptr<OrderedSwTable>> tables_;
};

}  // namespace Asic
