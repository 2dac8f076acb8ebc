// What a recording is made of: everything that went into the tables of an agent and everything that
// came out of them, in order.
//
// Plain values: any thread. Texts and bytes of an event lie with whoever made it: in the recording
// that it was read from, or with the recorder.
//
// Changes have numbers, which count from 1 in the order in which they were told of. Tables and keys
// are as the platform has them: a table's whole identity, the eight bytes of a key.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <variant>
#include <vector>

namespace Recording {

using Bytes = std::span<const std::byte>;

/// The number of a change, in six bytes.
template <class Number>
struct ChangeNumber {
    Number& value;
};
template <class Number>
ChangeNumber<Number> changeNumber(Number& value) {
    return {value};
}
inline constexpr std::uint64_t kMostChanges = (std::uint64_t{1} << 48U) - 1;

/// The last field of an event: as long as the event is.
template <class List>
struct Rest {
    List& value;
};
template <class List>
Rest<List> rest(List& value) {
    return {value};
}

inline bool sameBytes(Bytes a, Bytes b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// What goes in.

/// A process begins, with these options, on the files that follow; or on those that the process
/// before has left, where `onOwnFiles` says so.
struct Start {
    std::vector<std::uint16_t> units;
    std::uint32_t counters = 0;
    std::uint32_t policers = 0;
    std::uint64_t capacity = 0;  ///< most slots of a collection; 0: as declared
    bool onOwnFiles = false;
    std::uint64_t time_ns = 0;  ///< since 1970

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(self.units, self.counters, self.policers, self.capacity, self.onOwnFiles,
             self.time_ns);
    }
    bool operator==(const Start&) const = default;
};

/// Bytes of a file that are not all zero.
struct Run {
    std::uint64_t offset = 0;
    Bytes bytes;

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(self.offset, self.bytes);
    }
};

/// A file of the state directory as a process found it.
struct File {
    std::string_view path;  ///< below the directory
    std::uint64_t size = 0;
    std::vector<Run> runs;

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(self.path, self.size, rest(self.runs));
    }
};

/// A change is staged.
struct Change {
    /// In two bytes, so that the entry stands in whole words.
    enum class Operation : std::uint16_t { write, remove, removeAll };
    /// The change waits for one of something that is not recorded.
    static constexpr std::uint64_t kForeign = ~std::uint64_t{0};

    Operation operation = Operation::write;
    std::uint64_t number = 0;
    std::uint32_t table = 0;
    std::uint16_t unit = 0;
    std::uint64_t key = 0;         ///< 0 for removeAll
    std::uint64_t dependency = 0;  ///< number of the change that it waits for; 0: none
    bool hasHandler = false;
    Bytes entry;  ///< of a write: VornPolicyCpu::EntryImage, a PackedEntry

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(self.operation, changeNumber(self.number), self.table, self.unit, self.key,
             self.dependency, self.hasHandler, rest(self.entry));
    }
};

/// A piece of posted work is done.
struct Turn {
    template <class Self, class Fields>
    static void fields(Self& /*self*/, Fields& /*each*/) {}
};

/// The agent looks at what the hardware side says.
struct Look {
    enum class Log : std::uint8_t { none, thisOne, another };
    struct Row {
        std::uint32_t table = 0;
        std::uint64_t version = 0;

        template <class Self, class Fields>
        static void fields(Self& self, Fields& each) {
            each(self.table, self.version);
        }
        bool operator==(const Row&) const = default;
    };

    std::uint32_t map = 0;  ///< counts the maps since the start, from 1
    Log log = Log::none;
    std::uint64_t consumed = 0;
    bool pauseRequested = false;
    std::uint32_t call = 0;  ///< while a process starts: which of its looks that is, from 1
    bool isWhole = true;     ///< the rows are all; otherwise the others are as in the look before
    std::vector<Row> rows;   ///< by table

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(self.map, self.log, self.consumed, self.pauseRequested, self.call, self.isWhole,
             rest(self.rows));
    }
    bool operator==(const Look&) const = default;
};

/// Somebody moves, fails or restores an index, or gives back what nobody uses.
struct ResourceOperation {
    enum class Operation : std::uint8_t { move, fail, restore, sweep };

    Operation operation = Operation::move;
    std::uint32_t table = 0;
    std::uint64_t key = 0;  ///< 0 for sweep

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(self.operation, self.table, self.key);
    }
};

/// The process ends in good order.
struct End {
    template <class Self, class Fields>
    static void fields(Self& /*self*/, Fields& /*each*/) {}
};

// What comes out.

/// The tables stand.
struct Mounted {
    std::vector<Look::Row> versions;  ///< the last that each log has handed out

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(rest(self.versions));
    }
};

/// A change that the tables made of their own, as its resource has moved.
struct OwnChange {
    std::uint64_t number = 0;
    std::uint32_t table = 0;
    std::string_view key;  ///< as text

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(changeNumber(self.number), self.table, self.key);
    }
};

/// A change has another state.
struct State {
    std::uint64_t number = 0;
    std::uint8_t state = 0;     ///< Asic::EntryState
    std::uint64_t version = 0;  ///< in its table's log; 0: none

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(changeNumber(self.number), self.state, self.version);
    }
};

/// The response handler of a change begins or has ended; changes between the two are its own.
struct Handler {
    std::uint64_t number = 0;
    bool runs = false;

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(changeNumber(self.number), self.runs);
    }
};

/// A resource table answers a request or tells of a change.
struct ResourceState {
    std::uint32_t table = 0;
    std::uint64_t key = 0;
    std::uint8_t state = 0;  ///< Asic::EntryState
    std::uint32_t updateVersion = 0;
    std::optional<std::uint32_t> index;

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(self.table, self.key, self.state, self.updateVersion, self.index);
    }
};

/// What somebody has to say to people.
struct Note {
    std::string_view text;

    template <class Self, class Fields>
    static void fields(Self& self, Fields& each) {
        each(self.text);
    }
};

/// The place of an event in this list is its kind in a file: new ones come last.
using Event = std::variant<Start, File, Mounted, Change, Turn, Look, ResourceOperation, End,
                           OwnChange, State, Handler, ResourceState, Note>;

template <class Kind>
bool is(const Event& event) {
    return std::holds_alternative<Kind>(event);
}

/// What a replay does, and not what it finds.
inline bool isInput(const Event& event) {
    return is<Start>(event) || is<File>(event) || is<Change>(event) || is<Turn>(event) ||
           is<Look>(event) || is<ResourceOperation>(event) || is<End>(event) || is<Note>(event);
}

}  // namespace Recording
