// What a resource table remembers over a restart: a record for each index that is not free.
//
// Event thread only.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>

#include "platform/asic/Versions.h"
#include "platform/brumo/Layout.h"

namespace Asic {

/// Key of the records: an index can stand in the file only once.
struct ResourceIndex {
    std::uint32_t value = 0;

    auto operator<=>(const ResourceIndex&) const = default;
    bool isEq(const ResourceIndex& other) const { return value == other.value; }
    std::uint32_t hash(unsigned seed) const { return (value ^ seed) * 2654435761U; }
    std::string toText() const { return std::to_string(value); }
};

/// Zero is never written, so that zeroed memory is no record.
enum class ResourceRecordState : std::uint8_t { allocated = 1, returning = 2 };

/// The record of one index.
///
///   0         8            16      20          24      25          26     28
///   | version | requestKey | index | userTable | state | featureId | rsvd | clientData, padded
template <class Binding>
struct ResourceRecord {
    static constexpr std::size_t kUnpadded = 28 + sizeof(typename Binding::ClientData);

    std::uint64_t version = 0;  ///< of the resource table, when the index was allocated or set up
    typename Binding::Key requestKey;
    std::uint32_t index = 0;
    std::uint32_t userTable = 0;  ///< the table whose changes used the index last; 0 is unknown
    ResourceRecordState state = ResourceRecordState::allocated;
    std::uint8_t featureId = 0;
    std::array<std::uint8_t, 2> reserved{};
    typename Binding::ClientData clientData;
    std::array<std::uint8_t, 8 - kUnpadded % 8> padding{};

    ResourceIndex key() const { return {index}; }
    bool operator==(const ResourceRecord&) const = default;
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf(
            {Brumo::layoutOf<typename Binding::Key>(),
             Brumo::layoutOf<typename Binding::ClientData>(), offsetof(ResourceRecord, version),
             offsetof(ResourceRecord, requestKey), offsetof(ResourceRecord, index),
             offsetof(ResourceRecord, userTable), offsetof(ResourceRecord, state),
             offsetof(ResourceRecord, featureId), offsetof(ResourceRecord, clientData)});
    }
};

/// Where the records lie. Each operation is all or nothing, also for a process that is killed.
template <class Record>
class ResourceStore {
public:
    virtual ~ResourceStore() = default;

    virtual void forEach(const std::function<void(const Record&)>& visit) const = 0;
    virtual std::optional<Record> find(std::uint32_t index) const = 0;
    virtual std::size_t size() const = 0;
    virtual void write(const Record& record) = 0;
    virtual void erase(std::uint32_t index) = 0;
    /// The last version of the resource table.
    virtual LogVersion version() const = 0;
    virtual void versionIs(LogVersion version) = 0;
    /// Whether there may have been later versions than version(): the records are lost, or the
    /// number has rotted.
    virtual bool versionInDoubt() const = 0;
    /// Stores the version from which the table goes on. It is in doubt no more.
    virtual void restoredVersionIs(LogVersion version) = 0;
};

}  // namespace Asic
