// Does every step to the real tables of one family and to their model, and compares the two.
#pragma once

#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/VersionLogReader.h"
#include "tests/model/Commands.h"
#include "tests/model/Reference.h"
#include "tests/support/InProcessAgent.h"

namespace ModelTests {

using DependencyPtr = Brumo::Ptr<const Asic::DependencyEntryHandle>;

/// What the families of one sequence share: the agent, and handles that changes may depend on.
struct Setting {
    TestSupport::InProcessAgent& agent;
    World& world;
    std::vector<std::pair<Change*, DependencyPtr>> handles;
    unsigned keys = 4;  ///< of each table
};

class Family {
public:
    virtual ~Family() = default;
    virtual void stage(const Command& command) = 0;
    virtual void walk(const Command& command) = 0;
    virtual void update(const Command& command) = 0;
    virtual void clear(const Command& command) = 0;
    virtual void cleanup(std::uint64_t version) = 0;
    virtual void acknowledged(std::uint64_t version) = 0;
    virtual void closeTables() = 0;
    /// After a restart, before the tables are there: mounts the log and returns its version.
    virtual std::uint64_t mountedVersion() = 0;
    /// After it: the bytes of a `FamilyModel::Carried` that a killed agent has carried out.
    virtual void carriedOut(std::span<const std::byte> carried) = 0;
    /// The same of a remove-all, of which the model is told only when it is done: the unit, when
    /// the log's file has a record of one at the version.
    virtual std::optional<std::size_t> removeAllInFile(std::uint64_t version) const = 0;
    virtual void removeAllCarriedOut(std::size_t unit) = 0;
    virtual void restarted(std::uint64_t acknowledged) = 0;
    virtual void compare() = 0;
    /// One key only.
    virtual void compareKey(std::size_t unit, unsigned key) = 0;
    virtual bool idle() = 0;
    virtual bool hasRecord(std::uint64_t version) const = 0;
    virtual std::uint64_t version() const = 0;
    virtual std::uint32_t tableId() const = 0;
    virtual void held(std::array<std::set<std::uint32_t>, 2>& requests) = 0;
    /// Units in which committed entries use the request.
    virtual std::uint32_t users(std::size_t linkage, std::uint32_t request) = 0;
};

// How each table's entries are made of a command.

inline VornPolicyCpu::PolicyCpuTcamActionEntryKey keyOf(
    const VornPolicyCpu::PolicyCpuTcamActionBinding*, unsigned key) {
    return TestSupport::actionKey(key);
}
template <class B>
VornPolicyCpu::MatchKey keyOf(const B*, unsigned key) {
    return TestSupport::matchKey(key);
}

inline VornPolicyCpu::PolicyCpuTcamActionEntry entryOf(
    const VornPolicyCpu::PolicyCpuTcamActionBinding*, const Command& c) {
    if (c.key == 0 && c.variant == 0 && c.counter == 0 && c.policer == 0)
        return {};
    auto entry = TestSupport::actionEntry(c.key, c.counter, c.policer);
    entry.redirect = c.variant;
    if (c.policer != 0)
        entry.policerClientData.rate = c.variant >= 4 ? 2000 : 1000;
    return entry;
}
inline VornPolicyCpu::PolicyCpuV4TcamEntryEntry entryOf(
    const VornPolicyCpu::PolicyCpuV4TcamEntryBinding*, const Command& c) {
    return TestSupport::v4Entry(c.key, c.variant);
}
inline VornPolicyCpu::PolicyCpuV6TcamEntryEntry entryOf(
    const VornPolicyCpu::PolicyCpuV6TcamEntryBinding*, const Command& c) {
    return TestSupport::v6Entry(c.key, c.variant);
}

template <class B>
class FamilyDriver final : public Family {
public:
    using Types = typename B::Types;
    using Key = typename B::Key;
    using Entry = typename B::Entry;
    using Table = typename B::SwTable;
    using Handle = typename VornPolicyCpu::SwTable<B>::EntryHandle;
    using HandlePtr = Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>;
    using Wrapper = typename B::EntryWrapper;

    FamilyDriver(Setting& setting, std::size_t units)
        : setting_(setting),
          model_(setting.world, B::kTableId.whole(), units),
          tables_(units),
          iterators_(units),
          walks_(units) {
        openTables();
    }

    void stage(const Command& command) override { stageOn(command.unit, command); }

    void walk(const Command& command) override {
        auto& iterator = iterators_[command.unit];
        auto& walk = walks_[command.unit];
        const auto& unit = model_.unit(command.unit);
        if (command.op == Op::openWalk) {
            const Key key = keyOf(kBinding, command.key);
            iterator = std::make_unique<Iterator>(
                command.callback == 0 ? tables_[command.unit]->entryIteratorConst()
                                      : tables_[command.unit]->entryIteratorConst(key));
            walk = command.callback == 0 ? std::make_unique<WalkModel<Types>>(unit)
                                         : std::make_unique<WalkModel<Types>>(unit, key);
        } else if (iterator == nullptr || !iterator->valid()) {
            return;
        } else {
            ++*iterator;
        }
        const auto expected = walk->step(unit);
        verdict().equal(iterator->valid(), expected.has_value(), "the walk goes on");
        verdict().equal(**iterator, expected.value_or(Entry{}), "the walk's entry");
    }

    void update(const Command& command) override {
        const Key key = keyOf(kBinding, command.key);
        const bool live = model_.unit(command.unit).live(key) != nullptr;
        const auto handle = tables_[command.unit]->updateEntry(key);
        verdict().equal(handle != nullptr, live, "an update gives a handle for what is committed");
        if (handle == nullptr || !live)
            return;
        verdict().equal(handle->logVersion().value, model_.unit(command.unit).live(key)->version,
                        "version of the update");
        verdict().expect(handle->entryState() == Asic::EntryState::written, "state of the update");
    }

    void clear(const Command& command) override {
        const bool release = command.callback != 0;
        model_.clear(command.unit, release, {});
        tables_[command.unit]->clearTable(release);
    }

    void cleanup(std::uint64_t version) override {
        model_.cleanup(version);
        log().cleanupEntryLog({version});
    }

    void acknowledged(std::uint64_t version) override { model_.status(version); }

    void closeTables() override {
        iterators_ = std::vector<std::unique_ptr<Iterator>>(tables_.size());
        walks_ = std::vector<std::unique_ptr<WalkModel<Types>>>(tables_.size());
        subscriptions_.clear();
        handles_.clear();
        changeOf_.clear();
        tables_ = std::vector<Brumo::Ptr<Table>>(tables_.size());
    }

    std::uint64_t mountedVersion() override { return family().entryLog()->tableVersion().value; }

    void carriedOut(std::span<const std::byte> bytes) override {
        typename FamilyModel<Types>::Carried carried;
        std::memcpy(&carried, bytes.data(), sizeof(carried));
        model_.carriedOut(carried);
    }

    std::optional<std::size_t> removeAllInFile(std::uint64_t version) const override {
        using Constants = VornPolicyCpu::Constants<Types>;
        const KivShimo::VersionLogReader<VornPolicyCpu::LogShimoEntry<Key>> file(
            KivShimo::tableFile(setting_.agent.root(), Constants::tableEntryLogShimoPath()),
            Constants::entryLogShimoType(), VornPolicyCpu::kEntryLogConfig);
        const auto record = file.find(version);
        if (!record.has_value() || record->operation != VornPolicyCpu::LogOperation::allDeleted)
            return std::nullopt;
        return record->unitId.value - 1U;
    }
    void removeAllCarriedOut(std::size_t unit) override {
        model_.carriedOut({0, Kind::removeAll, static_cast<std::uint32_t>(unit)});
    }

    void restarted(std::uint64_t acknowledged) override {
        model_.restart(acknowledged);
        if (setting_.world.changes.empty())
            answers_.clear();  // they are counted by the change's number
        openTables();
    }

    void compare() override {
        compareLog();
        for (std::size_t which = 0; which < tables_.size(); ++which) {
            compareUnit(which);
            compareUsage(which, typename B::Linkages{});
            tables_[which]->assertConsistent();
        }
        for (const auto& [change, handle] : handles_)
            compareState(*change, *handle);
        answers_.resize(setting_.world.changes.size());
        for (const Change& change : setting_.world.changes) {
            if (change.table == tableId())
                verdict().equal(answers_[change.id], change.answers, "answers to a change");
        }
    }

    void compareKey(std::size_t which, unsigned number) override {
        const Table& table = *tables_[which];
        auto& unit = model_.unit(which);
        const Key key = keyOf(kBinding, number);
        verdict().equal(table.entryHas(key), unit.has(key), "has");
        verdict().equal(table.entryRead(key), unit.read(key), "read");
        verdict().equal(table.transientAddEntry(key) != nullptr, unit.adds.contains(key),
                        "staged write");
        verdict().equal(table.transientRemoveEntry(key) != nullptr, unit.removes.contains(key),
                        "staged remove");
        const auto sequence = unit.sequences.find(key);
        verdict().equal(table.transientVersionForKey(key).sequence,
                        sequence == unit.sequences.end() ? ~std::uint64_t{0} : sequence->second,
                        "version of the key's latest change");
        compareCommitted(which, key);
    }

    bool idle() override {
        for (std::size_t which = 0; which < tables_.size(); ++which) {
            if (!model_.unit(which).queue.empty())
                return false;
        }
        return true;
    }

    bool hasRecord(std::uint64_t version) const override {
        return model_.records().contains(version);
    }
    std::uint64_t version() const override { return model_.version(); }
    std::uint32_t tableId() const override { return B::kTableId.whole(); }

    void held(std::array<std::set<std::uint32_t>, 2>& requests) override {
        if constexpr (B::Linkages::kCount > 0) {
            const auto add = [&](const Entry& entry) {
                requests[0].insert(entry.counterRequestKey.requestId);
                requests[1].insert(entry.policerRequestKey.requestId);
            };
            for (std::size_t which = 0; which < tables_.size(); ++which) {
                auto& unit = model_.unit(which);
                for (const auto& staged : unit.queue)
                    add(staged.entry);
                for (const auto& [key, staged] : unit.adds)
                    add(staged.entry);
                for (std::size_t linkage = 0; linkage < 2; ++linkage) {
                    for (const auto& [request, keys] : unit.usage[linkage])
                        requests[linkage].insert(request);
                }
            }
        }
    }

    std::uint32_t users(std::size_t linkage, std::uint32_t request) override {
        std::uint32_t count = 0;
        for (std::size_t which = 0; which < tables_.size(); ++which)
            count += model_.unit(which).usage[linkage].contains(request) ? 1 : 0;
        return count;
    }

private:
    using Iterator = typename VornPolicyCpu::SwTable<B>::EntryIteratorConst;
    static constexpr const B* kBinding = nullptr;

    /// The hooks tell the model what commits; they run before the log is written.
    class Hooks final : public VornPolicyCpu::SwTableHelperBase<B> {
    public:
        using Base = VornPolicyCpu::SwTableHelperBase<B>;
        Hooks(FamilyDriver& driver, std::size_t unit) : driver_(driver), unit_(unit) {}

        void finalizeOnSuccess(const typename Base::WrapperPtr& wrapper, bool isDeleted,
                               const typename Base::TablePtr&) override {
            driver_.committing(unit_, *wrapper, isDeleted, true);
        }
        std::uint32_t finalizeOnFailure(const typename Base::WrapperPtr& wrapper, bool isDeleted,
                                        const typename Base::TablePtr&) override {
            return driver_.committing(unit_, *wrapper, isDeleted, false) ? 1 : 0;
        }
        bool finalizeOnResourceUpdate(const typename Base::WrapperPtr& wrapper,
                                      const typename Base::TablePtr&, bool failed) override {
            return driver_.updating(unit_, *wrapper, failed);
        }

    private:
        FamilyDriver& driver_;
        std::size_t unit_;
    };

    Verdict& verdict() { return setting_.world.verdict; }
    VornPolicyCpu::EntryLog<B>& log() { return *tables_[0]->entryLog(); }

    void openTables() {
        for (std::size_t which = 0; which < tables_.size(); ++which) {
            const Asic::UnitId unit{static_cast<std::uint16_t>(which + 1)};
            const Brumo::Ptr<VornPolicyCpu::SwTableHelperBase<B>> hooks =
                Brumo::make<Hooks>(*this, which);
            tables_[which] = family().makeSwTable(unit, hooks, false);
            subscriptions_.push_back(
                tables_[which]->publisher().subscribe([this, which](const Kiv::Change& change) {
                    if (change.attribute == Asic::OrderedSwTable::kTransientRemoveAllVersion)
                        removeAllsChanged(which, change.template oldAs<Asic::MajorVersion>());
                }));
        }
    }

    auto& family() {
        if constexpr (B::Linkages::kCount > 0) {
            return *setting_.agent.actions();
        } else if constexpr (std::is_same_v<B, VornPolicyCpu::PolicyCpuV4TcamEntryBinding>) {
            return *setting_.agent.v4Entries();
        } else {
            return *setting_.agent.v6Entries();
        }
    }

    /// A count that goes down is a remove-all that was committed.
    void removeAllsChanged(std::size_t which, Asic::MajorVersion before) {
        const Asic::MajorVersion now = tables_[which]->transientRemoveAllVersion();
        if (before.valid() && (!now.valid() || now < before))
            model_.commitRemoveAll(which);
    }

    void stageOn(std::size_t which, const Command& command) {
        const Change* dependsOn = nullptr;
        DependencyPtr dependency;
        if (command.dependency > 0 && command.dependency <= setting_.handles.size()) {
            const auto& chosen = setting_.handles[setting_.handles.size() - command.dependency];
            dependsOn = chosen.first;
            dependency = chosen.second;
        }
        const Key key = keyOf(kBinding, command.key);
        Entry entry = entryOf(kBinding, command);
        const Kind kind = command.op == Op::write    ? Kind::write
                          : command.op == Op::remove ? Kind::remove
                                                     : Kind::removeAll;
        Change* change =
            model_.stage(which, kind, key, kind == Kind::write ? entry : Entry{}, dependsOn);
        answers_.resize(setting_.world.changes.size());
        const auto handler = [this, which, change, command](const HandlePtr& handle) {
            answered(which, change, handle, command);
        };
        Table& table = *tables_[which];
        if (kind == Kind::removeAll) {
            table.entryRemoveAllWithResponseHandler(dependency, handler);
            return;
        }
        const auto handle =
            kind == Kind::write
                ? table.entryWriteWithResponseHandler(key, entry, dependency, handler)
                : table.entryRemoveWithResponseHandler(key, dependency, handler);
        verdict().equal(handle->entryVersion().sequence, change->sequence, "entry version");
        changeOf_.emplace(handle.get(), change);
        handles_.emplace_back(change, handle);
        setting_.handles.emplace_back(change, handle);
    }

    void answered(std::size_t which, Change* change, const HandlePtr& handle,
                  const Command& command) {
        verdict().expect(!change->forgotten, "a restart forgets handlers");
        answers_.resize(setting_.world.changes.size());
        ++answers_[change->id];
        if (change->state == State::created)
            model_.failOnDependency(which, change);
        compareState(*change, *handle);
        if (command.callback == 0)
            return;
        Command next = command;
        next.op = command.callback == 1   ? Op::write
                  : command.callback == 2 ? Op::remove
                                          : Op::removeAll;
        next.key = (command.key + 1) % setting_.keys;
        next.callback = 0;
        next.dependency = 0;
        stageOn(which, next);
    }

    /// True when a write whose resources failed is to be committed all the same.
    bool committing(std::size_t which, const Wrapper& wrapper, bool isDeleted, bool succeeded) {
        const auto found = changeOf_.find(wrapper.entryHandle().get());
        if (found == changeOf_.end()) {
            verdict().expect(false, "only what was asked for is committed");
            return false;
        }
        if (isDeleted) {
            model_.commitRemove(which, found->second);
            return false;
        }
        auto resolved = resolve(wrapper, wrapper.entry());
        const bool hasRoom = model_.hasRoom(which, wrapper.key());
        verdict().equal(succeeded, resolved.succeeded && hasRoom, "the resources' success");
        if (succeeded)
            verdict().equal(wrapper.entry(), resolved.entry, "the resolved fields");
        resolved.entry = wrapper.entry();
        const bool commitAllTheSame = variantOf(wrapper.entry()) % 2 == 1;
        model_.commitWrite(which, found->second, resolved, commitAllTheSame);
        return commitAllTheSame;
    }

    bool updating(std::size_t which, const Wrapper& wrapper, bool failed) {
        const auto* committed = model_.unit(which).live(wrapper.key());
        if (committed == nullptr) {
            verdict().expect(false, "only what is committed is updated");
            return false;
        }
        const auto resolved = resolve(wrapper, committed->entry);
        verdict().equal(failed, !resolved.succeeded, "an update knows of failed resources");
        verdict().equal(wrapper.entry(), resolved.entry, "the updated entry");
        const bool commit = variantOf(wrapper.entry()) / 2 % 2 == 0;
        model_.update(which, wrapper.key(), resolved, commit);
        return commit;
    }

    static unsigned variantOf(const Entry& entry) {
        if constexpr (B::Linkages::kCount > 0) {
            return entry.redirect == VornPolicyCpu::kNoRedirect ? 0 : entry.redirect;
        } else {
            return 0;
        }
    }

    /// What the resources in the wrapper's slots give for the entry.
    Resolved<Entry> resolve(const Wrapper& wrapper, const Entry& entry) {
        Resolved<Entry> resolved{entry, {}};
        if constexpr (B::Linkages::kCount > 0) {
            const auto& counter = wrapper.counterRequestKeyResPtr();
            const auto& policer = wrapper.policerRequestKeyResPtr();
            resolved.entry.counterIndex = VornPolicyCpu::kNoCounterIndex;
            resolved.entry.featureId = 0;
            resolved.entry.policerIndex = VornPolicyCpu::kNoPolicerIndex;
            if (take(resolved, entry.counterRequestKey, counter, *setting_.agent.counters())) {
                resolved.entry.counterIndex = counter->counterIndex();
                resolved.entry.featureId = counter->featureId();
            }
            if (take(resolved, entry.policerRequestKey, policer, *setting_.agent.policers())) {
                resolved.entry.policerIndex = policer->policerIndex();
                resolved.entry.policerClientData = policer->clientData();
                verdict().expect(policer->clientData().rate.get() != 0,
                                 "a policer keeps what it was requested with");
            }
        }
        return resolved;
    }

    /// True when there is a resource; it must be what its table says.
    template <class RequestKey, class ResourceHandle, class ResourceTable>
    bool take(Resolved<Entry>& resolved, const RequestKey& key, const ResourceHandle& handle,
              const ResourceTable& table) {
        verdict().equal(handle != nullptr, !(key == RequestKey{}), "a handle for each request");
        if (handle == nullptr)
            return false;
        verdict().equal(handle->key(), key, "the handle's key");
        for (const auto& info : table.keys()) {
            if (info.key == key)
                verdict().expect(info.state == handle->entryState(), "the handle is the live one");
        }
        for (const auto& version : handle->neededVersions())
            need(resolved.needed, version.tableId.whole(), version.version.value);
        resolved.pending |= handle->entryState() == Asic::EntryState::created;
        resolved.succeeded &= handle->entryState() == Asic::EntryState::complete;
        return true;
    }

    void compareLog() {
        verdict().equal(log().tableVersion().value, model_.version(), "last version");
        verdict().equal(log().cleanedUpTo().value, model_.mark(), "cleaned up to");
        verdict().equal(log().entryLogConfigs(), model_.records().size(), "change records");
        for (const auto& [version, expected] : model_.records()) {
            const auto record = log().tableEntryLog()->entryLogConfig({version});
            if (!record.has_value()) {
                verdict().expect(false, fmt::format("change record {} is there", version));
                continue;
            }
            verdict().equal(static_cast<unsigned>(record->operation),
                            static_cast<unsigned>(expected.kind), "operation of a record");
            verdict().equal(record->unitId.value, expected.unit + 1, "unit of a record");
            verdict().equal(record->key, expected.key, "key of a record");
        }
    }

    void compareUnit(std::size_t which) {
        const Table& table = *tables_[which];
        auto& unit = model_.unit(which);
        for (unsigned number = 0; number < setting_.keys; ++number)
            compareKey(which, number);
        verdict().equal(table.transientRemoveAllVersion().value,
                        unit.removeAlls.value_or(Asic::MajorVersion::kInvalid),
                        "remove-alls in flight");
        verdict().equal(table.entrys(), unit.entrys(), "number of entries");
        verdict().equal(log().entrysInDeletion(table.unitId()), unit.inDeletion(), "in deletion");
        verdict().equal(table.hasPendingHwWrites(), model_.pendingHwWrites(which), "pending");
        verdict().equal(table.entryHandlesInLog().size(), unit.inLog.size(), "handles in the log");
        const auto& stats = *table.stats();
        const Figures figures{stats.entryWriteCnt(), stats.entryRemoveCnt(),
                              stats.commitCnt(),     stats.resolveFailCnt(),
                              stats.updateCnt(),     stats.updateWithFailedResourceCnt(),
                              stats.tableClearCnt()};
        verdict().equal(figures, unit.figures, "statistics");
    }

    void compareCommitted(std::size_t which, const Key& key) {
        const auto stored = log().configEntry(key, tables_[which]->unitId());
        const auto& config = model_.unit(which).config;
        const auto expected = config.find(key);
        verdict().equal(stored.has_value(), expected != config.end(), "a committed value");
        if (!stored.has_value() || expected == config.end())
            return;
        verdict().equal(Entry::from(stored->logEntry, stored->rsrcKeys), expected->second.entry,
                        "the committed entry");
        verdict().equal(stored->version.value, expected->second.version, "its version");
        verdict().equal(stored->inDeletion, expected->second.inDeletion, "its deletion");
    }

    template <class... L>
    void compareUsage([[maybe_unused]] std::size_t which, VornPolicyCpu::LinkageList<L...>) {
        [[maybe_unused]] std::size_t linkage = 0;
        (compareUsageOf<L>(which, linkage++), ...);
    }
    template <class L>
    void compareUsageOf(std::size_t which, std::size_t linkage) {
        const auto& real = *tables_[which]->template linkage<L>();
        const auto& usage = model_.unit(which).usage[linkage];
        verdict().equal(real.entryUsageSms(), usage.size(), "resources in use");
        for (const auto& [request, keys] : usage) {
            typename L::ResourceKey key;
            key.requestId = request;
            const auto machine = real.entryUsageSm(key);
            verdict().expect(machine != nullptr, "a resource in use is tracked");
            if (machine == nullptr)
                continue;
            std::set<Key, WalkOrder<Key>> users;
            machine->entryUsage().forEach([&](const Key& user) { users.insert(user); });
            verdict().expect(users == keys, "the users of a resource");
        }
    }

    void compareState(const Change& change, const Asic::OrderedSwTable::EntryHandle& handle) {
        verdict().equal(static_cast<unsigned>(handle.entryState()),
                        static_cast<unsigned>(change.state), "state of a handle");
        if (change.kind != Kind::removeAll)
            verdict().equal(handle.logVersion().value, change.logVersion, "version of a handle");
    }

    Setting& setting_;
    FamilyModel<Types> model_;
    std::vector<Brumo::Ptr<Table>> tables_;
    std::vector<std::unique_ptr<Iterator>> iterators_;
    std::vector<std::unique_ptr<WalkModel<Types>>> walks_;
    std::vector<Kiv::Subscription> subscriptions_;
    std::vector<std::pair<Change*, Brumo::Ptr<const Handle>>> handles_;
    std::unordered_map<const void*, Change*> changeOf_;
    std::vector<unsigned> answers_;
};

}  // namespace ModelTests
