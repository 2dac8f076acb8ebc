// Everything that goes into the tables of a process by their operations and everything that comes
// out of them, in order. What the process does to make its tables, it tells itself.
//
// Event thread only. At most one recorder a process. A recorder is told while the tables are at
// work: it must not change them, but from within handlerIs().
//
// What always holds:
//  1. What goes in is told before it is done, what comes out when it has come, and what a handler
//     does in answer between the two calls of handlerIs().
//  2. With the same inputs told, the same process tells the same outputs: nothing else, as the time
//     or an address, decides what the tables do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/asic/RecorderHook.h"
#include "platform/asic/SwTable.h"
#include "platform/kivshimo/AckMap.h"

namespace Asic {

/// All that the agent takes from the hardware side's map in one look.
struct AckMapReading {
    /// Whose announcements the map speaks of.
    enum class Log : std::uint8_t { none, thisOne, another };

    std::uint64_t identity = 0;             ///< of the map's file
    std::optional<Log> log;                 ///< nothing where it cannot be read
    KivShimo::Acknowledgements versions;    ///< those that could be read
    bool isWhole = true;                    ///< log and versions could be read
    std::optional<std::uint64_t> consumed;  ///< of this log; nothing where it cannot be read
    std::optional<bool> pauseRequested;     ///< nothing where it cannot be read
};

class Recorder {
public:
    virtual ~Recorder() = default;

    // What goes in.

    enum class Operation : std::uint8_t { write, remove, removeAll };
    struct Change {
        Operation operation;
        const OrderedSwTable& table;
        const DependencyEntryHandle& handle;  ///< of this change; told of for the first time
        std::uint64_t key;                    ///< its bytes; 0 for removeAll
        std::span<const std::byte> entry;     ///< log entry, then resource keys; empty: no write
        const DependencyEntryHandle* dependency;  ///< may be null
        bool hasHandler;
    };
    virtual void changeStaged(const Change& change) = 0;

    enum class ResourceOperation : std::uint8_t { move, fail, restore, sweep };
    /// `key`: its bytes; 0 for sweep.
    virtual void resourceOperation(SwTableId table, ResourceOperation operation,
                                   std::uint64_t key) = 0;
    /// The resolver or a resource table begins the work that it has posted.
    virtual void turnBegins() = 0;
    /// The map, or another that has taken its place, is about to be looked at: whoever replays a
    /// record lays out what was read then.
    virtual void mapWillBeRead() = 0;
    /// `takesUp`: also a map that says nothing new makes the agent do something.
    virtual void mapRead(const AckMapReading& reading, bool takesUp) = 0;

    // What comes out.

    /// A handle has another state, and perhaps another log version.
    virtual void stateIs(const DependencyEntryHandle& handle) = 0;
    /// The handle's response handler begins (`runs`), and has ended.
    virtual void handlerIs(const DependencyEntryHandle& handle, bool runs) = 0;

    struct ResourceState {
        SwTableId table;
        std::uint64_t key;
        EntryState state;
        std::uint32_t updateVersion;
        std::optional<std::uint32_t> index;
    };
    /// A resource table answers a request, or tells its users of a change.
    virtual void resourceStateIs(const ResourceState& state) = 0;
};

}  // namespace Asic
