// Types of the action table: what is done with traffic that is sent to the CPU.
//
// Plain values. The log entry lies in shared memory; its layout is pinned below.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include "platform/brumo/Layout.h"
#include "platform/brumo/Unaligned.h"
#include "platform/resources/Keys.h"
#include "types/Records.h"

namespace VornPolicyCpu {

/// Key of an action.
///
///   0    4     5         8
///   | id | sub | padding |
struct PolicyCpuTcamActionEntryKey {
    std::uint32_t id = 0;
    std::uint8_t sub = 0;
    std::array<std::uint8_t, 3> padding{};  ///< always zero

    auto operator<=>(const PolicyCpuTcamActionEntryKey&) const = default;
    bool isEq(const PolicyCpuTcamActionEntryKey& other) const { return *this == other; }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({offsetof(PolicyCpuTcamActionEntryKey, id),
                                offsetof(PolicyCpuTcamActionEntryKey, sub)});
    }
    std::uint32_t hash(unsigned seed) const {
        return Asic::hashOf64(std::uint64_t{id} << 8U | sub, seed);
    }
    std::string toText() const { return fmt::format("{:08x}.{}", id, sub); }
};
static_assert(sizeof(PolicyCpuTcamActionEntryKey) == 8);
static_assert(offsetof(PolicyCpuTcamActionEntryKey, sub) == 4);

/// Whether matched traffic reaches the CPU.
enum class Disposition : std::uint8_t { permit = 0, drop = 1 };

struct PolicyCpuTcamActionResourceKeys {
    VornCountersLib::CrpsIndexRequestEntryKey counterRequestKey;
    VornPolicerLib::PolicerIndexRequestEntryKey policerRequestKey;

    bool operator==(const PolicyCpuTcamActionResourceKeys&) const = default;
    bool isEq(const PolicyCpuTcamActionResourceKeys& other) const { return *this == other; }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({offsetof(PolicyCpuTcamActionResourceKeys, counterRequestKey),
                                offsetof(PolicyCpuTcamActionResourceKeys, policerRequestKey),
                                Brumo::layoutOf<VornCountersLib::CrpsIndexRequestEntryKey>(),
                                Brumo::layoutOf<VornPolicerLib::PolicerIndexRequestEntryKey>()});
    }
    std::string toText() const {
        return fmt::format("counter {} policer {}", counterRequestKey, policerRequestKey);
    }
};
static_assert(sizeof(PolicyCpuTcamActionResourceKeys) == 16);

constexpr std::uint32_t kNoCounterIndex = 0xFFFFFFFF;
constexpr std::uint16_t kNoPolicerIndex = 0xFFFF;
constexpr std::uint32_t kNoRedirect = 0xFFFFFF;

/// The action as shared memory holds it.
///
///   0      8     16         20        24        26       27      28            62     80
///   | head | key | redirect | counter | policer | feature| dispo | client data | name |
struct PolicyCpuTcamActionLogEntry {
    Brumo::Unaligned<LogEntryHead> head;
    Brumo::Unaligned<PolicyCpuTcamActionEntryKey> key;
    Brumo::Unaligned<std::uint32_t> redirect =
        kNoRedirect;  ///< index of another destination than the CPU
    Brumo::Unaligned<std::uint32_t> counterIndex = kNoCounterIndex;
    Brumo::Unaligned<std::uint16_t> policerIndex = kNoPolicerIndex;
    std::uint8_t featureId = 0;
    Disposition disposition = Disposition::permit;
    VornPolicerLib::PolicerIndexRequestClientData policerClientData;
    std::array<char, 18> name{};

    std::uint32_t word() const { return redirect; }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({Brumo::layoutOf<LogEntryHead>(),
                                Brumo::layoutOf<PolicyCpuTcamActionEntryKey>(),
                                Brumo::layoutOf<VornPolicerLib::PolicerIndexRequestClientData>(),
                                offsetof(PolicyCpuTcamActionLogEntry, head),
                                offsetof(PolicyCpuTcamActionLogEntry, key),
                                offsetof(PolicyCpuTcamActionLogEntry, redirect),
                                offsetof(PolicyCpuTcamActionLogEntry, counterIndex),
                                offsetof(PolicyCpuTcamActionLogEntry, policerIndex),
                                offsetof(PolicyCpuTcamActionLogEntry, featureId),
                                offsetof(PolicyCpuTcamActionLogEntry, disposition),
                                offsetof(PolicyCpuTcamActionLogEntry, policerClientData),
                                offsetof(PolicyCpuTcamActionLogEntry, name)});
    }
    bool isEq(const PolicyCpuTcamActionLogEntry& other) const {
        return std::memcmp(this, &other, sizeof(*this)) == 0;
    }
    std::string toText() const {
        return fmt::format("key {} counter {} policer {} {}", key.get(), counterIndex.get(),
                           policerIndex.get(), policerClientData);
    }
};
static_assert(sizeof(PolicyCpuTcamActionLogEntry) == 80);
static_assert(offsetof(PolicyCpuTcamActionLogEntry, key) == 8);
static_assert(offsetof(PolicyCpuTcamActionLogEntry, redirect) == 16);
static_assert(offsetof(PolicyCpuTcamActionLogEntry, policerClientData) == 28);

/// The action as feature code writes it. `counterIndex`, `policerIndex` and `featureId` are filled
/// from the resolved resources; what feature code writes there is overwritten.
struct PolicyCpuTcamActionEntry {
    PolicyCpuTcamActionEntryKey key;
    VornCountersLib::CrpsIndexRequestEntryKey counterRequestKey;
    VornPolicerLib::PolicerIndexRequestEntryKey policerRequestKey;
    std::uint32_t counterIndex = kNoCounterIndex;
    std::uint16_t policerIndex = kNoPolicerIndex;
    std::uint8_t featureId = 0;
    VornPolicerLib::PolicerIndexRequestClientData policerClientData;
    Disposition disposition = Disposition::permit;
    std::uint32_t redirect = kNoRedirect;
    std::array<char, 18> name{};  ///< for people; zero-padded

    bool operator==(const PolicyCpuTcamActionEntry&) const = default;
    bool isEq(const PolicyCpuTcamActionEntry& other) const { return *this == other; }

    PolicyCpuTcamActionLogEntry toLogEntry() const {
        PolicyCpuTcamActionLogEntry log;
        log.key = key;
        log.redirect = redirect;
        log.counterIndex = counterIndex;
        log.policerIndex = policerIndex;
        log.featureId = featureId;
        log.disposition = disposition;
        log.policerClientData = policerClientData;
        log.name = name;
        return log;
    }
    PolicyCpuTcamActionResourceKeys resourceKeys() const {
        return {counterRequestKey, policerRequestKey};
    }
    static PolicyCpuTcamActionEntry from(const PolicyCpuTcamActionLogEntry& log,
                                         const PolicyCpuTcamActionResourceKeys& rsrcKeys) {
        PolicyCpuTcamActionEntry entry;
        entry.logEntryIs(log, rsrcKeys);
        return entry;
    }
    /// Becomes what `from` returns.
    void logEntryIs(const PolicyCpuTcamActionLogEntry& log,
                    const PolicyCpuTcamActionResourceKeys& rsrcKeys) {
        key = log.key;
        counterRequestKey = rsrcKeys.counterRequestKey;
        policerRequestKey = rsrcKeys.policerRequestKey;
        counterIndex = log.counterIndex;
        policerIndex = log.policerIndex;
        featureId = log.featureId;
        policerClientData = log.policerClientData;
        disposition = log.disposition;
        redirect = log.redirect;
        name = log.name;
    }
    std::string toText() const {
        return fmt::format("key {} {} counter {}:{} policer {}:{} {}", key, textOf(name),
                           counterRequestKey, counterIndex, policerRequestKey, policerIndex,
                           policerClientData);
    }
};

struct PolicyCpuTcamActionTypes {
    static constexpr std::string_view kName = "PolicyCpuTcamAction";
    static constexpr Asic::SwTableId kTableId{0x2C080403};
    using Key = PolicyCpuTcamActionEntryKey;
    using Entry = PolicyCpuTcamActionEntry;
    using LogEntry = PolicyCpuTcamActionLogEntry;
    using ResourceKeys = PolicyCpuTcamActionResourceKeys;
};
static_assert(TableTypes<PolicyCpuTcamActionTypes>);

using PolicyCpuTcamActionLogShimoEntry = LogShimoEntry<PolicyCpuTcamActionEntryKey>;
static_assert(sizeof(PolicyCpuTcamActionLogShimoEntry) == 32);
static_assert(offsetof(PolicyCpuTcamActionLogShimoEntry, head) == 8);
static_assert(offsetof(PolicyCpuTcamActionLogShimoEntry, key) == 16);
static_assert(offsetof(PolicyCpuTcamActionLogShimoEntry, word) == 24);
static_assert(offsetof(PolicyCpuTcamActionLogShimoEntry, unitId) == 28);
static_assert(offsetof(PolicyCpuTcamActionLogShimoEntry, operation) == 30);
static_assert(std::is_trivially_copyable_v<PolicyCpuTcamActionLogShimoEntry>);

using PolicyCpuTcamActionConfigShimoEntry =
    ConfigShimoEntry<PolicyCpuTcamActionEntryKey, PolicyCpuTcamActionLogEntry,
                     PolicyCpuTcamActionResourceKeys>;

}  // namespace VornPolicyCpu
