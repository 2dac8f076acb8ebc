#include "recording/Codec.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Recording {

namespace {

template <class Kind>
bool isKnown(const Kind& /*event*/) {
    return true;
}
bool isKnown(const Change& change) {
    return change.operation <= Change::Operation::removeAll;
}
bool isKnown(const Look& look) {
    return look.log <= Look::Log::unreadable;
}
bool isKnown(const ResourceOperation& made) {
    return made.operation <= ResourceOperation::Operation::sweep;
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

void Buffer::grow(std::size_t more) {
    constexpr std::size_t kLeast = 1024;
    const std::size_t capacity = std::max({2 * capacity_, size_ + more, kLeast});
    auto memory = std::make_unique<std::byte[]>(capacity);
    if (size_ != 0)
        std::memcpy(memory.get(), memory_.get(), size_);
    memory_ = std::move(memory);
    capacity_ = capacity;
}

void encode(const Event& event, Buffer& buffer) {
    std::visit([&](const auto& kind) { encode(kind, buffer); }, event);
}

Event decode(Bytes bytes) {
    constexpr auto kDecoders = decodersOf(std::make_index_sequence<std::variant_size_v<Event>>());
    Decoder decoder(bytes);
    const std::uint64_t kind = decoder.number();
    if (kind >= kDecoders.size())
        throw FormatError("an event is of a kind that this program does not know");
    Event event = kDecoders.at(kind)(decoder);
    if (!decoder.atEnd())
        throw FormatError("an event is longer than its fields");
    return event;
}

}  // namespace Recording
