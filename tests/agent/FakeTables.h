// Tables that record what feature code does with them, and end changes when told.
#pragma once

#include <deque>
#include <map>
#include <string>

#include "agent/PolicyLoader.h"
#include "agent/StableHash.h"

namespace TestSupport {

class FakeHandle final : public Asic::OrderedSwTable::EntryHandle {
public:
    explicit FakeHandle(Asic::SwTableId id) : EntryHandle(Asic::EntryVersion{0, 0}), id_(id) {}
    Asic::SwTableId tableId() const override { return id_; }

private:
    Asic::SwTableId id_;
};

/// One call of write or remove, in the order of all tables.
struct Call {
    std::string what;  ///< "write action", "remove ipv4", ...
    std::uint64_t key = 0;
    Brumo::Ptr<FakeHandle> handle;
    Brumo::Ptr<const Asic::DependencyEntryHandle> dependency;
    Asic::OrderedSwTable::ResponseHandler handler;
    bool ended = false;
};

class Journal {
public:
    std::deque<Call> calls;

    void end(std::size_t index, Asic::EntryState state) {
        Call& call = calls.at(index);
        call.ended = true;
        call.handle->entryStateIs(state);
        if (call.handler)
            call.handler(call.handle);
    }
    void complete(std::size_t index) { end(index, Asic::EntryState::complete); }
    void fail(std::size_t index) { end(index, Asic::EntryState::failed); }
    /// Also what is added on the way.
    void completeAll() {
        for (std::size_t i = 0; i < calls.size(); ++i) {
            if (!calls[i].ended)
                complete(i);
        }
    }
    std::vector<std::string> texts(std::size_t from = 0) const {
        std::vector<std::string> result;
        for (std::size_t i = from; i < calls.size(); ++i)
            result.push_back(calls[i].what);
        return result;
    }
    /// Index of the call; the last of several. calls.size() when there is none.
    std::size_t find(const std::string& what, std::uint64_t key) const {
        for (std::size_t i = calls.size(); i-- > 0;) {
            if (calls[i].what == what && calls[i].key == key)
                return i;
        }
        return calls.size();
    }
};

template <class Types>
class FakeTable final : public VornPolicyCpu::TableOperations<Types> {
public:
    using Base = VornPolicyCpu::TableOperations<Types>;
    using typename Base::DependencyPtr;
    using typename Base::Entry;
    using typename Base::HandlePtr;
    using typename Base::Key;
    using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;

    FakeTable(std::string name, Asic::UnitId unit, Journal& journal)
        : Base(nullptr, Asic::SwTableId(1), unit, nullptr),
          name_(std::move(name)),
          journal_(journal) {}

    std::map<Key, Entry> entries;  ///< what is committed or staged

    HandlePtr write(const Key& key, const Entry& entry, const DependencyPtr& dependency,
                    const ResponseHandler& handler) override {
        entries[key] = entry;
        return record("write ", key, dependency, handler);
    }
    HandlePtr remove(const Key& key, const DependencyPtr& dependency,
                     const ResponseHandler& handler) override {
        entries.erase(key);
        return record("remove ", key, dependency, handler);
    }
    void removeAll(const DependencyPtr&, const ResponseHandler&) override { entries.clear(); }
    Entry read(const Key& key) const override {
        const auto found = entries.find(key);
        return found == entries.end() ? Entry{} : found->second;
    }
    bool has(const Key& key) const override { return entries.contains(key); }
    std::uint32_t count() const override { return static_cast<std::uint32_t>(entries.size()); }
    void forEach(const std::function<void(const Entry&)>& visit) const override {
        for (const auto& [key, entry] : entries)
            visit(entry);
    }
    std::optional<VornPolicyCpu::StagedChange<Entry>> staged(const Key&) const override {
        return std::nullopt;
    }
    void tableStatusVersion(Asic::LogVersion) override {}
    bool hasPendingHwWrites() const override { return false; }
    Asic::LogVersion logVersion() const override { return {}; }

private:
    HandlePtr record(const std::string& operation, const Key& key, const DependencyPtr& dependency,
                     const ResponseHandler& handler) {
        Call call;
        call.what = operation + name_;
        call.key = Agent::packed(key);
        call.handle = Brumo::make<FakeHandle>(Asic::SwTableId(1));
        call.dependency = dependency;
        call.handler = handler;
        journal_.calls.push_back(call);
        return call.handle;
    }

    std::string name_;
    Journal& journal_;
};

}  // namespace TestSupport
