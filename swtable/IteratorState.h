// The state of a walk over a table: which layers are still to come, and where to resume.
//
// Event thread only. A walk survives any change of the table between two steps: it resumes at the
// bookmark, the key of the next candidate, or at the first key after it.
#pragma once

#include "catalogue/Binding.h"
#include "platform/asic/SwTableIteratorState.h"

namespace VornPolicyCpu {

template <class B>
class SwTableIteratorState final : public Asic::SwTableIteratorStateBase {
public:
    explicit SwTableIteratorState(Brumo::Ptr<const typename B::SwTable> swTable)
        : swTable_(std::move(swTable)) {}

    const Brumo::Ptr<const typename B::SwTable>& swTable() const { return swTable_; }
    /// REQUIRES: has(kBookmarkSet)
    const typename B::Key& bookmark() const { return bookmark_; }
    void bookmarkIs(const typename B::Key& key) {
        bookmark_ = key;
        set(kBookmarkSet);
    }
    void bookmarkDel() { clear(kBookmarkSet); }

private:
    Brumo::Ptr<const typename B::SwTable> swTable_;
    typename B::Key bookmark_{};
};

}  // namespace VornPolicyCpu
