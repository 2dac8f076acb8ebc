// The hooks through which feature code learns, and decides, what becomes of each change.
//
// Event thread only. A table holds one helper; feature code installs its own with
// swTableHelperIs(). Hooks may call back into the table.
#pragma once

#include <cstdint>

#include "catalogue/Binding.h"

namespace VornPolicyCpu {

template <class B>
class SwTableHelperBase : public Brumo::RefCounted {
public:
    using WrapperPtr = Brumo::Ptr<const typename B::EntryWrapper>;
    using TablePtr = Brumo::Ptr<const typename B::SwTable>;

    /// The change is about to be committed; `isDeleted` tells a remove.
    virtual void finalizeOnSuccess(const WrapperPtr& /*wrapper*/, bool /*isDeleted*/,
                                   const TablePtr& /*swTable*/) {}

    /// A resource of the entry has failed. Not 0: commit the entry all the same.
    virtual std::uint32_t finalizeOnFailure(const WrapperPtr& /*wrapper*/, bool /*isDeleted*/,
                                            const TablePtr& /*swTable*/) {
        return 0;
    }

    /// A resource of a committed entry has changed; `failed` tells that some resource has failed.
    /// True: commit the entry with what the resources now give.
    virtual bool finalizeOnResourceUpdate(const WrapperPtr& /*wrapper*/,
                                          const TablePtr& /*swTable*/, bool /*failed*/) {
        return true;
    }
};

}  // namespace VornPolicyCpu
