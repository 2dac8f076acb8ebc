// Both linkages of the action table, as one set of tests sees them.
#pragma once

#include "linkage/LinkageImpl.h"
#include "tests/support/SwTableFixture.h"

namespace TestSupport {

struct CounterSide {
    using L = VornPolicyCpu::CrpsIndexRequestBinding;
    static constexpr std::string_view kName = "Counter";
    static constexpr std::string_view kResources = "CrpsIndexRequestResourceTable";

    static auto& resources(InProcessAgent& agent) { return *agent.counters(); }
    static void request(VornPolicyCpu::PolicyCpuTcamActionEntry& entry, std::uint32_t id) {
        entry.counterRequestKey.requestId = id;
    }
    static auto requested(L::ClientInstance& client, std::uint32_t id) {
        return client.request({id}, nullptr);
    }
    static std::uint32_t index(const VornPolicyCpu::PolicyCpuTcamActionEntry& entry) {
        return entry.counterIndex;
    }
    static std::uint32_t index(const L::ResourceHandle& handle) { return handle.counterIndex(); }
    static constexpr std::uint32_t kNoIndex = VornPolicyCpu::kNoCounterIndex;
};

struct PolicerSide {
    using L = VornPolicyCpu::PolicerIndexRequestBinding;
    static constexpr std::string_view kName = "Policer";
    static constexpr std::string_view kResources = "PolicerIndexRequestResourceTable";

    static auto& resources(InProcessAgent& agent) { return *agent.policers(); }
    static void request(VornPolicyCpu::PolicyCpuTcamActionEntry& entry, std::uint32_t id) {
        entry.policerRequestKey.requestId = id;
    }
    static auto requested(L::ClientInstance& client, std::uint32_t id) {
        return client.request({id}, {}, nullptr);
    }
    static std::uint32_t index(const VornPolicyCpu::PolicyCpuTcamActionEntry& entry) {
        return entry.policerIndex;
    }
    static std::uint32_t index(const L::ResourceHandle& handle) { return handle.policerIndex(); }
    static constexpr std::uint32_t kNoIndex = VornPolicyCpu::kNoPolicerIndex;
};

using BothSides = ::testing::Types<CounterSide, PolicerSide>;

struct SideName {
    template <class Side>
    static std::string GetName(int /*index*/) {
        return std::string(Side::kName);
    }
};

/// The action table with `Side`'s linkage under test. Numbers name actions; `id`s name requests.
template <class Side>
class LinkageFixture : public SwTableFixture<VornPolicyCpu::PolicyCpuTcamActionBinding> {
protected:
    using L = typename Side::L;
    using B = VornPolicyCpu::PolicyCpuTcamActionBinding;
    using ResourceKey = typename L::ResourceKey;
    using Resource = typename L::ResourceHandle;
    using ResourcePtr = Brumo::Ptr<const Resource>;
    using Accessor = VornPolicyCpu::SwTableResourceAccessor<VornPolicyCpu::Linkage<B, L>>;

    explicit LinkageFixture(const InProcessAgent::Options& options = {})
        : SwTableFixture(options) {}

    auto& linkage() { return *table->template linkage<L>(); }
    auto& resources() { return Side::resources(agent); }
    static ResourceKey rkey(std::uint32_t id) { return {id, 0, 0}; }
    /// The trace handle of the linkage.
    static std::string traced() { return std::string(L::kClassName); }

    static Entry action(std::uint32_t number, std::uint32_t id, std::uint32_t variant = 0) {
        Entry result = entry(number, variant);
        Side::request(result, id);
        return result;
    }
    WrapperPtr wrapperOf(std::uint32_t number, std::uint32_t id) {
        return Brumo::make<Wrapper>(action(number, id), handle(number));
    }
    auto writeAction(std::uint32_t number, std::uint32_t id, std::uint32_t variant = 0) {
        return table->entryWrite(key(number), action(number, id, variant), nullptr);
    }
    void committedAction(std::uint32_t number, std::uint32_t id, std::uint32_t variant = 0) {
        writeAction(number, id, variant);
        agent.settle();
    }
    /// A handle in any state that no resource table knows.
    static Brumo::Ptr<Resource> resourceIn(unsigned state, std::uint32_t id = 70) {
        const auto result = Brumo::make<Resource>(rkey(id));
        result->entryStateIs(static_cast<State>(state));
        return result;
    }
    auto machine(std::uint32_t id) { return linkage().entryUsageSm(rkey(id)); }
    std::uint32_t committedIndex(std::uint32_t number) {
        return Side::index(table->entryFromConfig(key(number)));
    }
    static std::size_t calls(const TraceCapture& traces, std::string_view function) {
        return callsOf(traces, Side::kResources, function);
    }
    /// The requests, acknowledgements and releases that the resource table got, in order.
    static std::vector<std::string> messages(const TraceCapture& traces) {
        std::vector<std::string> result;
        for (const TraceLine& line : traces.lines()) {
            if (line.handle != Side::kResources || line.level != 8)
                continue;
            if (line.function == "ackUpdate" || line.function == "release")
                result.push_back(line.function + " " + line.text.substr(5, 8));
        }
        return result;
    }
};

}  // namespace TestSupport
