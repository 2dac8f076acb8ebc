// A resource table with surroundings that tests control: a file in memory that outlives the table,
// a group whose acknowledgements are set by hand, and an event loop that turns when told to.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/kiv/EventLoop.h"
#include "platform/resources/CrpsIndexRequestResourceTable.h"
#include "platform/resources/PolicerIndexRequestResourceTable.h"

namespace ResourceTests {

using Asic::EntryState;
using Asic::LogVersion;
using Asic::SwTableId;
using Asic::TableVersion;

constexpr SwTableId kUserTable{0x2C010001};
constexpr SwTableId kResourceTable{0x2C0805FF};

/// What a killed process leaves, and what the hardware side says.
template <class Record>
struct Persistent {
    std::map<std::uint32_t, Record> records;
    LogVersion version;
    std::map<SwTableId, LogVersion> acknowledged;
    std::map<SwTableId, LogVersion> handedOut;
    std::vector<TableVersion> announced;
    Kiv::Publisher moved;
    bool versionInDoubt = false;
    int writesLeft = -1;  ///< when it reaches 0, the process counts as killed: nothing is stored
};

template <class Record>
class MemoryStore final : public Asic::ResourceStore<Record> {
public:
    explicit MemoryStore(std::shared_ptr<Persistent<Record>> kept) : kept_(std::move(kept)) {}

    void forEach(const std::function<void(const Record&)>& visit) const override {
        const auto all = kept_->records;
        for (const auto& [index, record] : all)
            visit(record);
    }
    std::optional<Record> find(std::uint32_t index) const override {
        const auto found = kept_->records.find(index);
        if (found == kept_->records.end())
            return std::nullopt;
        return found->second;
    }
    std::size_t size() const override { return kept_->records.size(); }
    void write(const Record& record) override {
        if (alive())
            kept_->records[record.index] = record;
    }
    void erase(std::uint32_t index) override {
        if (alive())
            kept_->records.erase(index);
    }
    LogVersion version() const override { return kept_->version; }
    void versionIs(LogVersion version) override {
        if (alive())
            kept_->version = version;
    }
    bool versionInDoubt() const override { return kept_->versionInDoubt; }
    void restoredVersionIs(LogVersion version) override {
        versionIs(version);
        kept_->versionInDoubt = false;
    }

private:
    bool alive() {
        if (kept_->writesLeft == 0)
            return false;
        if (kept_->writesLeft > 0)
            --kept_->writesLeft;
        return true;
    }

    std::shared_ptr<Persistent<Record>> kept_;
};

template <class Record>
class TestGroup final : public Asic::ResourceGroup {
public:
    explicit TestGroup(std::shared_ptr<Persistent<Record>> kept) : kept_(std::move(kept)) {}

    void announce(SwTableId tableId, LogVersion version) override {
        kept_->announced.push_back({tableId, version});
    }
    void restored(SwTableId tableId, LogVersion version) override {
        kept_->handedOut[tableId] = version;
    }
    LogVersion acknowledged(SwTableId tableId) const override {
        return kept_->acknowledged[tableId];
    }
    LogVersion handedOut(SwTableId tableId) const override { return kept_->handedOut[tableId]; }
    Kiv::Subscription onAcknowledged(std::function<void()> moved) override {
        return kept_->moved.subscribe([moved](const Kiv::Change&) { moved(); });
    }

private:
    std::shared_ptr<Persistent<Record>> kept_;
};

/// The change of a software table's entry.
class TestEntry final : public Asic::OrderedSwTable::EntryHandle {
public:
    explicit TestEntry(LogVersion version = {}) : EntryHandle({}) { logVersionIs(version); }

    SwTableId tableId() const override { return kUserTable; }
};

template <class Binding>
struct Calls;

template <>
struct Calls<VornCountersLib::CounterBinding> {
    using Table = VornCountersLib::CrpsIndexRequestResourceTable;
    static auto request(Table::ClientInstance& client, const Table::Key& key,
                        const Table::ClientData& /*data*/) {
        return client.request(key, nullptr);
    }
    static std::uint32_t index(const Table::Handle& handle) { return handle.counterIndex(); }
};

template <>
struct Calls<VornPolicerLib::PolicerBinding> {
    using Table = VornPolicerLib::PolicerIndexRequestResourceTable;
    static auto request(Table::ClientInstance& client, const Table::Key& key,
                        const Table::ClientData& data) {
        return client.request(key, data, nullptr);
    }
    static std::uint32_t index(const Table::Handle& handle) { return handle.policerIndex(); }
};

template <class Binding>
class World {
public:
    using Key = typename Binding::Key;
    using Handle = typename Binding::Handle;
    using HandlePtr = Brumo::Ptr<const Handle>;
    using ClientData = typename Binding::ClientData;
    using Record = Asic::ResourceRecord<Binding>;
    using Table = Asic::ResourceTable<Binding>;
    using Client = typename Calls<Binding>::Table::ClientInstance;

    explicit World(std::uint32_t poolSize, bool grouped = true)
        : poolSize_(poolSize), grouped_(grouped) {
        start();
    }
    ~World() { stop(); }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    void start() {
        Asic::ResourceTableParts<Binding> parts;
        parts.store = std::make_unique<MemoryStore<Record>>(kept);
        if (grouped_)
            parts.group = std::make_unique<TestGroup<Record>>(kept);
        table = Brumo::make<Table>("Test", kResourceTable, poolSize_, std::move(parts), loop);
        a = Brumo::make<Client>(table);
        b = Brumo::make<Client>(table);
        check();
    }
    void stop() {
        a = nullptr;
        b = nullptr;
        table = nullptr;
        loop.runUntilIdle();
    }
    /// The process ends and comes again. REQUIRES: handles were dropped, or are left to outlive it.
    void restart() {
        const auto left = kept->records;
        stop();
        EXPECT_EQ(kept->records, left) << "ending gives nothing back";
        start();
    }

    static Key key(std::uint32_t id) { return {.requestId = id, .unit = 1}; }
    HandlePtr request(const Brumo::Ptr<Client>& client, std::uint32_t id,
                      const ClientData& data = {}) {
        HandlePtr handle = Calls<Binding>::request(*client, key(id), data);
        check();
        return handle;
    }
    /// A request that is answered and in use.
    HandlePtr use(const Brumo::Ptr<Client>& client, std::uint32_t id, const ClientData& data = {}) {
        HandlePtr handle = request(client, id, data);
        turn();
        ack(client, handle, nullptr);
        return handle;
    }
    void ack(const Brumo::Ptr<Client>& client, const HandlePtr& handle,
             const Brumo::Ptr<TestEntry>& entry) {
        client->ackUpdate(handle, handle->updateVersion(), entry);
        check();
    }
    void release(const Brumo::Ptr<Client>& client, const HandlePtr& handle,
                 const Brumo::Ptr<TestEntry>& entry) {
        client->release(handle, entry);
        check();
    }
    void turn() {
        EXPECT_TRUE(loop.runUntilIdle());
        check();
    }
    void acknowledge(std::uint64_t version) {
        kept->acknowledged[kUserTable] = {version};
        kept->moved.publish(1);
        check();
    }
    void check() const { table->assertConsistent(); }

    std::uint32_t used() const { return table->pool().used; }
    std::uint32_t returning() const { return table->pool().returning; }
    static std::uint32_t index(const HandlePtr& handle) { return Calls<Binding>::index(*handle); }
    static Brumo::Ptr<TestEntry> entry(std::uint64_t version = 0) {
        return Brumo::make<TestEntry>(LogVersion{version});
    }

    std::shared_ptr<Persistent<Record>> kept = std::make_shared<Persistent<Record>>();
    Kiv::ManualEventLoop loop;
    Brumo::Ptr<Table> table;
    Brumo::Ptr<Client> a;  ///< of one unit's table
    Brumo::Ptr<Client> b;  ///< of another's

private:
    std::uint32_t poolSize_;
    bool grouped_;
};

/// Counts publications of a handle's state.
template <class Handle>
class Publications {
public:
    explicit Publications(const Brumo::Ptr<const Handle>& handle)
        : subscription_(handle->publisher().subscribe([this](const Kiv::Change& change) {
              if (change.attribute == Handle::kState)
                  ++count_;
          })) {}
    int count() const { return count_; }

private:
    int count_ = 0;
    Kiv::Subscription subscription_;
};

using Bindings = ::testing::Types<VornCountersLib::CounterBinding, VornPolicerLib::PolicerBinding>;

}  // namespace ResourceTests
