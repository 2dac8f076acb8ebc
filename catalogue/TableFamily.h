// A table family as the agent holds it: what makes the tables of its units.
//
// Event thread only. Found in the module registry under the family's registry name, for example
// "VornPolicyCpu::PolicyCpuTcamActionInterface", as a factory of type TableFamilyFactory.
#pragma once

#include "catalogue/TableOperations.h"
#include "platform/asic/OrderedTableInterface.h"

namespace VornPolicyCpu {

template <class Types>
class TableFamily : public Asic::TableInterfaceBase {
public:
    using Asic::TableInterfaceBase::TableInterfaceBase;

    /// Makes the table of a unit, restored from what a process before left, or cleared when
    /// `reset`; the same table again when there is one. Throws KivShimo::MountError.
    virtual Brumo::Ptr<TableOperations<Types>> makeTable(Asic::UnitId unit, bool reset) = 0;
    /// The last version that the family's entry log has handed out; 0 when none was.
    virtual Asic::LogVersion logVersion() const = 0;
    /// Records in the change log, and how many it is made for.
    struct LogFill {
        std::size_t records = 0;
        std::size_t capacity = 0;
    };
    virtual LogFill logFill() const = 0;
};

/// Returns the process's one family of that kind, made on the first call.
template <class Types>
using TableFamilyFactory = Brumo::Ptr<TableFamily<Types>> (*)(
    const Brumo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf);

}  // namespace VornPolicyCpu
