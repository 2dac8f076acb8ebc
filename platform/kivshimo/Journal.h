// The room for one pending change in a table file: what is being done, sealed.
//
// A change touches several places. Before the first of them is touched, the change is written here
// as a whole and sealed; after the last one the seal is taken away. A mount that finds a seal
// carries the change out again. Event thread of the writing process.
//
// What always holds:
//  1. `seal` is the checksum of the head, the value and the needed versions, seeded with the file's
//     identity; 0 is no seal. Storing it is the moment from which the change happens.
//  2. Between seal and done, whatever of the change was carried out can be carried out again with
//     the same result. There is one pending change at a time.
//  3. No store of the change is before the seal, none after its removal: a killed process leaves
//     a prefix of its stores.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

#include "platform/brumo/Assert.h"
#include "platform/kivshimo/detail/Words.h"

namespace KivShimo {

/// One table version that a change needs the hardware to hold first.
struct JournalNeeded {
    std::uint64_t version;
    std::uint64_t tableId;
};
static_assert(sizeof(JournalNeeded) == 16);

/// The pending change as it lies in the file.
///
///   0      8           16     24        32           36            40      296
///   | seal | operation | unit | version | valueBytes | neededCount | value | needed |
struct Journal {
    static constexpr std::size_t kValueBytes = 256;
    static constexpr std::size_t kMostNeeded = 234;

    struct Head {
        std::uint64_t operation;
        std::uint64_t unit;
        std::uint64_t version;
        std::uint64_t counts;  ///< bytes of the value; in the upper half, needed versions

        std::uint32_t valueBytes() const { return static_cast<std::uint32_t>(counts); }
        std::uint32_t neededCount() const { return static_cast<std::uint32_t>(counts >> 32U); }
    };

    std::uint64_t seal;
    Head head;
    std::uint64_t value[kValueBytes / 8];
    JournalNeeded needed[kMostNeeded];
};
static_assert(std::is_trivially_copyable_v<Journal>);
static_assert(offsetof(Journal, head) == 8 && offsetof(Journal::Head, version) == 16);
static_assert(offsetof(Journal, value) == 40 && offsetof(Journal, needed) == 296);
static_assert(sizeof(Journal) == 4040);

/// What is done.
using JournalOperation = std::uint64_t;
constexpr JournalOperation kFirstOwnersOperation = 16;  ///< from here on, the table's owner knows
constexpr JournalOperation kStoreValue = 1;  ///< a map's value; unit: collection, version: slot

/// A change that a process before has sealed and not finished.
struct PendingChange {
    JournalOperation operation = 0;
    std::uint64_t unit = 0;
    std::uint64_t version = 0;
    std::uint32_t valueBytes = 0;
    std::array<std::byte, Journal::kValueBytes> bytes{};
    std::span<const JournalNeeded> needed;  ///< in the file, until done()

    /// The value, when it is one of that size.
    template <class Value>
    std::optional<Value> value() const {
        static_assert(std::is_trivially_copyable_v<Value>);
        if (valueBytes != sizeof(Words<Value>))
            return std::nullopt;
        Value result;
        std::memcpy(static_cast<void*>(&result), bytes.data(), sizeof(Value));
        return result;
    }
};

class JournalWriter {
public:
    JournalWriter(Journal& place, std::uint64_t identity)
        : place_(&place),
          seed_(detail::mixed(identity, 0x6A6F75726E616CU)),
          isSealed_(sealed() != 0) {}

    /// Something is sealed that does not verify.
    bool rotten() const { return sealed() != 0 && !verifies(); }
    /// Empty when nothing is sealed, or it does not verify.
    std::optional<PendingChange> pending() const;

    // A change: begin, then its value and what it needs, then the seal; done when carried out.

    /// REQUIRES: nothing is sealed.
    void begin(JournalOperation operation, std::uint64_t unit, std::uint64_t version) {
        Brumo::require(!isSealed_, "one pending change at a time");
        // A seal that this process did not store is rot, and must not stand above half a change.
        if (sealed() != 0)
            done();
        head_ = {operation, unit, version, 0};
        valueSum_ = 0;
    }
    template <class Value>
    void valueIs(const Summed<Value>& value) {
        static_assert(sizeof(value.words) <= Journal::kValueBytes);
        value.words.storeTo(place_->value);
        head_.counts |= sizeof(value.words);
        valueSum_ = value.sum;
    }
    template <class Value>
    void valueIs(const Value& value) {
        valueIs(Summed<Value>{Words(value)});
    }
    void needs(std::uint32_t tableId, std::uint64_t version) {
        const std::uint32_t count = head_.neededCount();
        Brumo::require(count < Journal::kMostNeeded, "room for needed versions");
        place_->needed[count] = {version, tableId};
        head_.counts += std::uint64_t{1} << 32U;
    }
    void seal() {
        isSealed_ = true;
        store(head_);
        detail::word(place_->seal).store(sum(head_, valueSum_), std::memory_order_release);
        inOrder();
    }
    void done() {
        inOrder();
        detail::word(place_->seal).store(0, std::memory_order_release);
        inOrder();
        isSealed_ = false;
    }

private:
    std::uint64_t sealed() const { return detail::loaded(place_->seal); }
    std::uint64_t sum(const Journal::Head& head, std::uint64_t valueSum) const;
    bool verifies() const;
    void store(const Journal::Head& head) {
        detail::word(place_->head.operation).store(head.operation, std::memory_order_relaxed);
        detail::word(place_->head.unit).store(head.unit, std::memory_order_relaxed);
        detail::word(place_->head.version).store(head.version, std::memory_order_relaxed);
        detail::word(place_->head.counts).store(head.counts, std::memory_order_relaxed);
    }
    /// Stores on either side stay there. Only this process's own order counts, so it costs nothing.
    static void inOrder() { std::atomic_signal_fence(std::memory_order_seq_cst); }

    Journal* place_;
    std::uint64_t seed_;
    // Of what is being written; in the file when it is sealed.
    Journal::Head head_{};
    std::uint64_t valueSum_ = 0;  ///< 0 without a value
    bool isSealed_;               ///< as this process knows it; the word in the file may rot
};

}  // namespace KivShimo
