#include "recording/Codec.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include "recording/PackedEntry.h"

namespace Recording {

namespace {

/// Of Asic::EntryState.
constexpr std::uint8_t kLastState = 6;

template <class Kind>
bool isKnown(const Kind& /*event*/) {
    return true;
}
/// Parts in their order, apart, and within the file.
bool isKnown(const File& file) {
    std::uint64_t end = 0;
    for (const Run& run : file.runs) {
        const bool isApart = &run == &file.runs.front() || run.offset > end;
        if (!isApart || run.bytes.empty() || run.offset > file.size ||
            run.bytes.size() > file.size - run.offset)
            return false;
        end = run.offset + run.bytes.size();
    }
    return true;
}
bool isKnown(const Change& change) {
    return change.operation <= Change::Operation::removeAll &&
           (change.operation == Change::Operation::write ? isPackedEntry(change.entry)
                                                         : change.entry.empty()) &&
           (change.operation != Change::Operation::removeAll || change.key == 0) &&
           (change.dependency <= kMostChanges || change.dependency == Change::kForeign);
}
bool isKnown(const State& state) {
    return state.state <= kLastState;
}
bool isKnown(const ResourceState& state) {
    return state.state <= kLastState;
}
bool isKnown(const OwnChange& own) {
    return std::ranges::all_of(own.key, [](char each) {
        return (each >= '0' && each <= '9') || (each >= 'a' && each <= 'f') || each == '.';
    });
}
bool isKnown(const Note& note) {
    return std::ranges::none_of(note.text, [](char each) { return each >= 0 && each < ' '; });
}
bool isKnown(const Look& look) {
    return look.log <= Look::Log::another &&
           std::ranges::adjacent_find(look.rows, std::greater_equal(), &Look::Row::table) ==
               look.rows.end();
}
bool isKnown(const ResourceOperation& made) {
    return made.operation <= ResourceOperation::Operation::sweep &&
           (made.operation != ResourceOperation::Operation::sweep || made.key == 0);
}

template <class Kind>
Event decodeKind(Decoder& decoder) {
    Kind event;
    Kind::fields(event, decoder);
    if (!isKnown(event))
        throw FormatError("an event says what this program does not know");
    return event;
}

template <std::size_t... I>
constexpr auto decodersOf(std::index_sequence<I...> /*kinds*/) {
    return std::array{&decodeKind<std::variant_alternative_t<I, Event>>...};
}

}  // namespace

Buffer::Buffer(Bytes event) {
    std::uint64_t* const words = sizeIs(event.size());
    for (std::size_t word = 0; word < wordCount(event.size()); ++word)
        words[word] = wordAt(event, word);
}

std::uint64_t* Buffer::sizeIs(std::size_t size) {
    if (wordCount(size) > capacity_) {
        const std::size_t capacity = std::max(wordCount(size), 2 * capacity_);
        memory_ = std::make_unique_for_overwrite<std::uint64_t[]>(capacity);
        capacity_ = capacity;
    }
    size_ = size;
    return memory_.get();
}

void encode(const Event& event, Buffer& buffer) {
    std::visit([&](const auto& kind) { encode(kind, buffer); }, event);
}

Event decode(Bytes bytes) {
    constexpr auto kDecoders = decodersOf(std::make_index_sequence<std::variant_size_v<Event>>());
    Decoder decoder(bytes);
    std::uint8_t kind = 0;
    decoder(kind);
    if (kind >= kDecoders.size())
        throw FormatError("an event is of a kind that this program does not know");
    Event event = kDecoders.at(kind)(decoder);
    if (!decoder.atEnd())
        throw FormatError("an event is longer than its fields");
    return event;
}

}  // namespace Recording
