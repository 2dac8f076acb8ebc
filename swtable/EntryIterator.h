// Walking over a table: what is staged first, then what is committed and not staged.
//
// Event thread only. An iterator holds its state, the state the table; both may change between two
// steps in every way.
//
// What always holds:
//  1. `*iterator` is the default entry exactly when the iterator is not valid.
#pragma once

#include "swtable/SwTable.h"

namespace VornPolicyCpu {

/// A forward iterator over a table: `while (iterator.valid()) { *iterator; ++iterator; }`.
template <class B>
class SwTable<B>::EntryIteratorConst {
public:
    explicit EntryIteratorConst(Brumo::Ptr<SwTableIteratorState<B>> state)
        : state_(std::move(state)) {
        ++*this;
    }

    bool valid() const { return state_->has(Asic::SwTableIteratorStateBase::kCurrentEntryValid); }
    /// The default entry when the iterator is not valid.
    const Entry& operator*() const { return current_; }
    const Entry* operator->() const { return &current_; }
    EntryIteratorConst& operator++();
    const SwTableIteratorState<B>& state() const { return *state_; }

private:
    Brumo::Ptr<SwTableIteratorState<B>> state_;
    Entry current_{};
};

}  // namespace VornPolicyCpu
