// The state of a walk over a table: which layers are still to come, and where to resume.
//
// Event thread only. A walk survives any change of the table between two steps: it resumes at the
// bookmark, the key of the next candidate, or at the first key after it. Where that was found is
// kept as well, as a guess that is right as long as nothing has changed.
#pragma once

#include "catalogue/Binding.h"
#include "platform/asic/SwTableIteratorState.h"
#include "types/Shimo.h"

namespace VornPolicyCpu {

template <class B>
class SwTableIteratorState final : public Asic::SwTableIteratorStateBase {
public:
    using Position = typename ConfigShimo<typename B::Types>::Position;

    explicit SwTableIteratorState(Brumo::Ptr<const typename B::SwTable> swTable)
        : swTable_(std::move(swTable)) {}

    const Brumo::Ptr<const typename B::SwTable>& swTable() const { return swTable_; }
    /// REQUIRES: has(kBookmarkSet)
    const typename B::Key& bookmark() const { return bookmark_; }
    void bookmarkIs(const typename B::Key& key, Position guess = {}) {
        bookmark_ = key;
        guess_ = guess;
        set(kBookmarkSet);
    }
    /// Where the bookmark is in the committed configuration, if nothing has changed since.
    Position guess() const { return guess_; }
    void bookmarkDel() { clear(kBookmarkSet); }

private:
    Brumo::Ptr<const typename B::SwTable> swTable_;
    typename B::Key bookmark_{};
    Position guess_;
};

}  // namespace VornPolicyCpu
