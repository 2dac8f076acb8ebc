// A table and changes without an engine, for tests of the framework alone.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/asic/GroupResolver.h"

namespace AsicTests {

inline constexpr Asic::SwTableId kTable{0x2C080403};

class FakeTable final : public Asic::OrderedSwTable {
public:
    explicit FakeTable(Brumo::Ptr<Asic::GroupResolver> resolver = nullptr,
                       Asic::SwTableId tableId = Asic::SwTableId(0x2C080403),
                       std::uint16_t unit = 1, Asic::OrderedSwTableSet* set = nullptr)
        : OrderedSwTable(nullptr, tableId, {unit}, set), resolver_(std::move(resolver)) {}
    ~FakeTable() override {
        if (resolver_ != nullptr)
            resolver_->resolverQueueDel(this);
    }

    void tableStatusVersion(Asic::LogVersion version) override {
        told.push_back(version.value);
        if (onTold)
            onTold();
    }
    bool hasPendingHwWrites() const override { return pending; }
    Asic::LogVersion logVersion() const override { return {}; }

    std::vector<std::uint64_t> told;
    std::function<void()> onTold;
    bool pending = false;

private:
    Brumo::Ptr<Asic::GroupResolver> resolver_;
};

/// What happens to changes, in order.
struct Journal {
    std::vector<std::string> committed;
    std::size_t questions = 0;
};

class FakeHandle final : public Asic::OrderedSwTable::EntryHandle {
public:
    FakeHandle() : EntryHandle({0, 0}) {}
    Asic::SwTableId tableId() const override { return kTable; }
};

class FakeChange final : public Asic::ResolverEntry {
public:
    FakeChange(Journal& journal, FakeTable* table, std::uint64_t key, std::string name,
               Asic::EntryFlags flags = Asic::EntryFlags::write,
               const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependency = nullptr)
        : ResolverEntry(dependency, flags),
          journal_(journal),
          table_(table),
          key_(key),
          name_(std::move(name)) {}

    bool isResolved() override {
        ++journal_.questions;
        ++asked;
        if (waitsFor.cause == Asic::Blocker::Cause::none)
            return true;
        blockerIs(waitsFor);
        return false;
    }
    void commitEntry(const Brumo::Ptr<ResolverEntry>&) override {
        const Brumo::Ptr<FakeTable> keep(table_);
        journal_.committed.push_back(name_);
        if (onCommit)
            onCommit();
    }
    const Asic::OrderedSwTable::EntryHandle* changeHandle() const override { return handle.get(); }
    const Asic::OrderedSwTable* orderingTable() const override { return table_; }
    std::uint64_t orderingKey() const override { return key_; }

    Asic::Blocker waitsFor;
    Brumo::Ptr<FakeHandle> handle = Brumo::make<FakeHandle>();
    std::function<void()> onCommit;
    int asked = 0;

private:
    Journal& journal_;
    FakeTable* table_;
    std::uint64_t key_;
    std::string name_;
};

}  // namespace AsicTests
