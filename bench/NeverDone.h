// What changes wait for that are never to be committed.
#pragma once

#include "platform/asic/SwTable.h"

namespace Bench {

/// A change of another table that is never done.
class NeverDone final : public Asic::DependencyEntryHandle {
public:
    Asic::SwTableId tableId() const override { return Asic::SwTableId(0x2C010007); }
    Asic::TableVersion entryTableVersion() const override { return {tableId(), {1}}; }
};

}  // namespace Bench
