// Types of a table that only tests have: what share of a queue a port gets, with a counter.
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>

#include "platform/brumo/Unaligned.h"
#include "platform/resources/Keys.h"
#include "types/Records.h"

namespace VornPolicyCpu {

struct QueueShareKey {
    std::uint32_t port = 0;
    std::uint32_t queue = 0;

    /// How often keys were compared and hashed: what the engine does, in a number that is the same
    /// each time.
    static inline std::uint64_t uses = 0;

    std::strong_ordering operator<=>(const QueueShareKey& other) const {
        ++uses;
        return std::tie(port, queue) <=> std::tie(other.port, other.queue);
    }
    bool operator==(const QueueShareKey& other) const {
        ++uses;
        return port == other.port && queue == other.queue;
    }
    bool isEq(const QueueShareKey& other) const { return *this == other; }
    std::uint32_t hash(unsigned seed) const {
        ++uses;
        return Asic::hashOf64(std::uint64_t{port} << 32U | queue, seed);
    }
    std::string toText() const { return fmt::format("{}.{}", port, queue); }
};

struct QueueShareResourceKeys {
    VornCountersLib::CrpsIndexRequestEntryKey counterRequestKey;

    bool isEq(const QueueShareResourceKeys& other) const {
        return counterRequestKey.isEq(other.counterRequestKey);
    }
    std::string toText() const { return counterRequestKey.toText(); }
};

struct QueueShareLogEntry {
    Brumo::Unaligned<LogEntryHead> head;
    Brumo::Unaligned<QueueShareKey> key;
    Brumo::Unaligned<std::uint32_t> share;
    Brumo::Unaligned<std::uint32_t> counterIndex = 0xFFFFFFFF;

    std::uint32_t word() const { return share; }
    bool isEq(const QueueShareLogEntry& other) const {
        return std::memcmp(this, &other, sizeof(*this)) == 0;
    }
    std::string toText() const {
        return fmt::format("key {} share {} counter {}", key.get(), share.get(),
                           counterIndex.get());
    }
};
static_assert(sizeof(QueueShareLogEntry) == 24);

struct QueueShareEntry {
    QueueShareKey key;
    VornCountersLib::CrpsIndexRequestEntryKey counterRequestKey;
    std::uint32_t share = 0;
    std::uint32_t counterIndex = 0xFFFFFFFF;

    bool operator==(const QueueShareEntry&) const = default;
    bool isEq(const QueueShareEntry& other) const { return *this == other; }
    QueueShareLogEntry toLogEntry() const { return {{}, key, share, counterIndex}; }
    QueueShareResourceKeys resourceKeys() const { return {counterRequestKey}; }
    static QueueShareEntry from(const QueueShareLogEntry& log,
                                const QueueShareResourceKeys& rsrcKeys) {
        return {log.key, rsrcKeys.counterRequestKey, log.share, log.counterIndex};
    }
    void logEntryIs(const QueueShareLogEntry& log, const QueueShareResourceKeys& rsrcKeys) {
        *this = from(log, rsrcKeys);
    }
    std::string toText() const { return toLogEntry().toText(); }
};

struct QueueShareTypes {
    static constexpr std::string_view kName = "QueueShare";
    static constexpr Asic::SwTableId kTableId{0x2C080406};
    using Key = QueueShareKey;
    using Entry = QueueShareEntry;
    using LogEntry = QueueShareLogEntry;
    using ResourceKeys = QueueShareResourceKeys;
};
static_assert(TableTypes<QueueShareTypes>);

}  // namespace VornPolicyCpu
