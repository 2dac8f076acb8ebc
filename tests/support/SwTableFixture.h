// A software table of unit 1 in an agent of its own, and changes that tests hand to it without the
// resolver.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Paths.h"
#include "tests/entrylog/Bindings.h"
#include "tests/support/InProcessAgent.h"
#include "tests/support/TraceCapture.h"

namespace TestSupport {

/// The change of another table, in any state and at any version.
class ForeignChange final : public Asic::DependencyEntryHandle {
public:
    static constexpr Asic::SwTableId kTableId{0x2C010007};

    explicit ForeignChange(Asic::EntryState state, std::uint64_t version = 0) : version_(version) {
        entryStateIs(state);
    }
    Asic::SwTableId tableId() const override { return kTableId; }
    Asic::TableVersion entryTableVersion() const override { return {kTableId, {version_}}; }

private:
    std::uint64_t version_;
};

/// The entry of that number; `variant` makes entries under one key differ.
template <class B>
typename B::Entry entryOf(std::uint32_t number, std::uint32_t variant = 0) {
    typename B::Entry entry;
    entry.key = keyOf<B>(number);
    if constexpr (requires { entry.redirect; }) {
        entry.redirect = variant;
    } else {
        entry.priority = variant;
    }
    return entry;
}

template <class B>
Brumo::Ptr<typename B::SwTable> tableOf(InProcessAgent& agent, std::uint16_t unit = 1) {
    if constexpr (std::is_same_v<B, VornPolicyCpu::PolicyCpuTcamActionBinding>) {
        return agent.actionTable(unit);
    } else if constexpr (std::is_same_v<B, VornPolicyCpu::PolicyCpuV4TcamEntryBinding>) {
        return agent.v4Table(unit);
    } else {
        return agent.v6Table(unit);
    }
}

/// Counts answers, and keeps the last answered handle.
struct Answers {
    int count = 0;
    Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle> last;

    auto handler() {
        return [this](const Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>& handle) {
            ++count;
            last = handle;
        };
    }
};

/// Hooks that note how they were called, and answer what the test says.
template <class B>
class NotingHelper final : public VornPolicyCpu::SwTableHelperBase<B> {
public:
    using Base = VornPolicyCpu::SwTableHelperBase<B>;
    using WrapperPtr = typename Base::WrapperPtr;
    using TablePtr = typename Base::TablePtr;

    void finalizeOnSuccess(const WrapperPtr& wrapper, bool isDeleted,
                           const TablePtr& swTable) override {
        calls.push_back(isDeleted ? "success of a delete" : "success");
        last = wrapper->entry();
        stagedAtHook = swTable->transientAddEntry(wrapper->key()) != nullptr ||
                       swTable->transientRemoveEntry(wrapper->key()) != nullptr;
        versionAtHook = swTable->logVersion().value;
    }
    std::uint32_t finalizeOnFailure(const WrapperPtr& wrapper, bool isDeleted,
                                    const TablePtr& swTable) override {
        calls.push_back(isDeleted ? "failure of a delete" : "failure");
        last = wrapper->entry();
        stagedAtHook = swTable->transientAddEntry(wrapper->key()) != nullptr;
        resolveFailuresAtHook = swTable->stats()->resolveFailCnt();
        return commitFailed;
    }
    bool finalizeOnResourceUpdate(const WrapperPtr& wrapper, const TablePtr& /*swTable*/,
                                  bool failed) override {
        calls.push_back(failed ? "update with failure" : "update");
        last = wrapper->entry();
        return commitUpdates;
    }

    std::vector<std::string> calls;
    typename B::Entry last;
    bool stagedAtHook = false;
    std::uint64_t versionAtHook = 0;
    std::uint64_t resolveFailuresAtHook = 0;
    std::uint32_t commitFailed = 0;
    bool commitUpdates = true;
};

template <class B>
class SwTableFixture : public ::testing::Test {
protected:
    using Table = typename B::SwTable;
    using Key = typename B::Key;
    using Entry = typename B::Entry;
    using Wrapper = typename B::EntryWrapper;
    using WrapperPtr = Brumo::Ptr<Wrapper>;
    using Handle = typename VornPolicyCpu::SwTable<B>::EntryHandle;
    using HandlePtr = Brumo::Ptr<Handle>;
    using Change = VornPolicyCpu::ResolverEntry<B>;
    using ChangePtr = Brumo::Ptr<Change>;
    using State = Asic::EntryState;
    using Flags = Asic::EntryFlags;
    using Value = typename VornPolicyCpu::EntryLog<B>::ConfigValue;

    explicit SwTableFixture(const InProcessAgent::Options& options = {})
        : agent(options), table(tableOf<B>(agent)) {
        withoutCoreFiles();
    }

    /// The trace handle of the table and its engine.
    static std::string name() { return std::string(B::Types::kName) + "SwTable"; }
    static Key key(std::uint32_t number) { return keyOf<B>(number); }
    static std::string text(std::uint32_t number) { return key(number).toText(); }
    static Entry entry(std::uint32_t number, std::uint32_t variant = 0) {
        return entryOf<B>(number, variant);
    }

    // Through the table's operations.

    auto write(std::uint32_t number, std::uint32_t variant = 0) {
        return table->entryWrite(key(number), entry(number, variant), nullptr);
    }
    auto remove(std::uint32_t number) { return table->entryRemove(key(number), nullptr); }
    void committed(std::uint32_t number, std::uint32_t variant = 0) {
        write(number, variant);
        agent.settle();
    }
    Brumo::Ptr<NotingHelper<B>> notingHelper() {
        const auto helper = Brumo::make<NotingHelper<B>>();
        table->swTableHelperIs(helper);
        return helper;
    }

    // Changes that the resolver does not know.

    HandlePtr handle(std::uint32_t number, Asic::EntryVersion version = {0, 0}) {
        return VornPolicyCpu::entryHandleFactory<B>(version, key(number), table.get());
    }
    WrapperPtr wrapper(std::uint32_t number, std::uint32_t variant = 0,
                       Asic::EntryVersion version = {0, 0}) {
        return Brumo::make<Wrapper>(entry(number, variant), handle(number, version));
    }
    ChangePtr change(Flags flags, const WrapperPtr& wrapper,
                     const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependency = nullptr) {
        return Brumo::make<Change>(dependency, flags, table.get(), wrapper);
    }
    void commit(const ChangePtr& change) {
        table->commitEntry(Brumo::Ptr<Asic::ResolverEntry>(change));
    }

    // What the entry log holds.

    std::uint64_t version() { return table->logVersion().value; }
    auto& changeLog() { return *table->entryLog()->tableEntryLog(); }
    auto record(std::uint64_t version) { return changeLog().entryLogConfig({version}); }
    auto config() { return table->entryLog()->tableConfigShimo(table->unitId()); }
    std::vector<KivShimo::NeededVersion> neededOf(std::uint64_t version) {
        const auto log = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
            agent.root(), Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName())));
        std::uint64_t position = 0;
        while (const auto next = log->next(position + 1)) {
            if (next->tableId == B::kTableId.whole() && next->version == version)
                return next->needed;
            position = next->position;
        }
        ADD_FAILURE() << "version " << version << " is not announced";
        return {};
    }

    InProcessAgent agent;
    Brumo::Ptr<Table> table;
};

/// Flips a bit of a key's committed value where it lies in its file.
template <class Config>
void spoilEntry(const Config& config, const typename Config::Key& key) {
    const auto value = config.swTableEntries(key);
    ASSERT_TRUE(value.has_value());
    std::ifstream stream(config.file(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(stream)),
                            std::istreambuf_iterator<char>());
    const std::string wanted(reinterpret_cast<const char*>(&*value), sizeof(*value));
    const auto at = bytes.find(wanted, KivShimo::detail::kAreasOffset);
    ASSERT_NE(at, std::string::npos);
    const char spoilt = static_cast<char>(bytes[at] ^ 1);
    const KivShimo::detail::Descriptor descriptor(open(config.file().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(pwrite(descriptor.fd(), &spoilt, 1, static_cast<off_t>(at)), 1);
}

/// The calls that a resource table or another traced class got under a function's name.
inline std::size_t callsOf(const TraceCapture& traces, std::string_view handle,
                           std::string_view function) {
    return static_cast<std::size_t>(
        std::count_if(traces.lines().begin(), traces.lines().end(), [&](const TraceLine& line) {
            return line.handle == handle && line.function == function && line.level == 8;
        }));
}

}  // namespace TestSupport
