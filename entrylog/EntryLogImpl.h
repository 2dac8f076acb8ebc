// The bodies of EntryLog; included where a table is instantiated.
#pragma once

#include "catalogue/Modules.h"
#include "entrylog/Cleanup.h"
#include "entrylog/Mounting.h"
#include "entrylog/Operations.h"

namespace VornPolicyCpu {

template <class B>
const Kiv::TypeData& EntryLog<B>::typeData() const {
    return entryLogTypeData<B>();
}

}  // namespace VornPolicyCpu
