// What the group resolver queues of a change: it asks the change's table and tells it to commit.
//
// Event thread only. The table tells the resolver before it goes, so `swTable` is always alive.
#pragma once

#include <bit>
#include <cstdint>

#include "catalogue/Binding.h"
#include "platform/asic/GroupResolver.h"

namespace VornPolicyCpu {

template <class B>
class ResolverEntry final : public Asic::ResolverEntry {
public:
    ResolverEntry(Brumo::Ptr<const Asic::DependencyEntryHandle> dependantEntryHandle,
                  Asic::EntryFlags flags, typename B::SwTable* swTable,
                  Brumo::Ptr<typename B::EntryWrapper> entryWrapper)
        : Asic::ResolverEntry(std::move(dependantEntryHandle), flags),
          swTable_(swTable),
          entryWrapper_(std::move(entryWrapper)) {}

    typename B::SwTable* swTable() const { return swTable_; }
    const Brumo::Ptr<typename B::EntryWrapper>& entryWrapper() const { return entryWrapper_; }

    bool isResolved() override {
        return swTable_->isResolverEntryResolved(Brumo::Ptr<ResolverEntry>(this));
    }
    void commitEntry(const Brumo::Ptr<Asic::ResolverEntry>& resolverEntry) override {
        const Brumo::Ptr<typename B::SwTable> keep(swTable_);  // a handler may drop the table
        swTable_->commitEntry(resolverEntry);
    }
    const Asic::OrderedSwTable::EntryHandle* changeHandle() const override {
        return entryWrapper_->entryHandle().get();
    }
    const Asic::OrderedSwTable* orderingTable() const override { return swTable_; }
    std::uint64_t orderingKey() const override {
        return std::bit_cast<std::uint64_t>(entryWrapper_->key());
    }

private:
    typename B::SwTable* swTable_;
    Brumo::Ptr<typename B::EntryWrapper> entryWrapper_;
};

}  // namespace VornPolicyCpu
