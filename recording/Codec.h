// Events as bytes: the kind, then its fields in their order.
//
// Any thread. Numbers take the bytes of their type, those of changes six, the lowest first; a text
// or list is its length in four bytes and its parts; a list that ends an event has no length.
#pragma once

#include <algorithm>
#include <bit>
#include <concepts>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <type_traits>

#include "recording/Events.h"

namespace Recording {

/// Bytes that are no event.
class FormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

namespace detail {

template <class T>
concept Number = std::integral<T> || std::is_enum_v<T>;

/// Of the number's bytes.
template <class T>
using Unsigned = std::conditional_t<
    sizeof(T) == 1, std::uint8_t,
    std::conditional_t<sizeof(T) == 2, std::uint16_t,
                       std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;

/// The place of the kind in the list of events.
template <class Kind, std::uint8_t place = 0>
constexpr std::uint8_t kindOf() {
    if constexpr (std::is_same_v<Kind, std::variant_alternative_t<place, Event>>) {
        return place;
    } else {
        return kindOf<Kind, place + 1>();
    }
}

}  // namespace detail

inline constexpr std::size_t kWordSize = sizeof(std::uint64_t);
static_assert(std::endian::native == std::endian::little, "files are as words lie in memory");

/// One of the words that the bytes make, filled with zeros. REQUIRES: it begins within them.
inline std::uint64_t wordAt(Bytes bytes, std::size_t word) {
    std::uint64_t value = 0;
    const std::size_t at = word * kWordSize;
    const std::size_t there = std::min(bytes.size() - at, kWordSize);
    if (there == kWordSize) {
        std::memcpy(&value, bytes.data() + at, kWordSize);
        return value;
    }
    for (std::size_t byte = 0; byte < there; ++byte)
        value |= std::to_integer<std::uint64_t>(bytes[at + byte]) << 8 * byte;
    return value;
}

/// An event as bytes, in whole words: zeros fill the last one. Keeps its memory.
class Buffer {
public:
    Buffer() = default;
    /// A copy of an event.
    explicit Buffer(Bytes event);

    Bytes bytes() const { return std::as_bytes(words()).first(size_); }
    std::span<const std::uint64_t> words() const {
        return {memory_.get(), (size_ + kWordSize - 1) / kWordSize};
    }

private:
    friend class Encoder;

    /// Memory of more words, the first `used` of which stay.
    void grow(std::size_t used, std::size_t more);

    std::unique_ptr<std::uint64_t[]> memory_;
    std::size_t capacity_ = 0;  ///< words
    std::size_t size_ = 0;      ///< bytes
};

/// Puts the fields of one event into a buffer, whose event before is gone. What it has put is in
/// whole words, so that whoever reads them next does not wait for smaller stores.
class Encoder {
public:
    explicit Encoder(Buffer& buffer)
        : buffer_(&buffer), next_(buffer.memory_.get()), last_(next_ + buffer.capacity_) {
        makeRoom(0);
    }

    template <class... T>
    void operator()(const T&... fields) {
        (one(fields), ...);
    }
    /// REQUIRES: called once, in the end.
    void finish() {
        *next_ = gathered_;
        buffer_->size_ =
            static_cast<std::size_t>(next_ - buffer_->memory_.get()) * kWordSize + filled_ / 8;
    }

private:
    template <detail::Number T>
    void one(T value) {
        put(static_cast<std::uint64_t>(static_cast<detail::Unsigned<T>>(value)), sizeof(T));
    }
    template <class T>
    void one(const ChangeNumber<T>& number) {
        put(number.value, 6);
    }
    void one(Bytes value) {
        one(static_cast<std::uint32_t>(value.size()));
        one(rest(value));
    }
    template <class T>
    requires std::same_as<std::remove_const_t<T>, Bytes>
    void one(const Rest<T>& last) {
        Bytes value = last.value;
        makeRoom(value.size() / kWordSize);
        for (; value.size() >= kWordSize; value = value.subspan(kWordSize)) {
            std::uint64_t word = 0;
            std::memcpy(&word, value.data(), kWordSize);
            put(word, kWordSize);
        }
        for (const std::byte byte : value)
            put(std::to_integer<std::uint64_t>(byte), 1);
    }
    void one(std::string_view value) { one(std::as_bytes(std::span(value))); }
    template <class T>
    void one(const std::optional<T>& value) {
        one(value.has_value());
        if (value)
            one(*value);
    }
    template <class T>
    void one(const std::vector<T>& values) {
        one(static_cast<std::uint32_t>(values.size()));
        one(rest(values));
    }
    template <class T>
    void one(const Rest<const std::vector<T>>& values) {
        for (const T& value : values.value) {
            makeRoom(0);
            one(value);
        }
    }
    template <class T>
    requires requires(const T& value, Encoder& encoder) { T::fields(value, encoder); }
    void one(const T& value) { T::fields(value, *this); }

    /// REQUIRES: `value` has `bytes` bytes, at most 8; there is room. Where all of the event before
    /// it is of fixed size, the compiler knows what stands where.
    void put(std::uint64_t value, unsigned bytes) {
        const std::uint64_t beyond = (value >> 1U) >> (63 - filled_);
        gathered_ |= value << filled_;
        filled_ += 8 * bytes;
        if (filled_ < 64)
            return;
        *next_++ = gathered_;
        gathered_ = beyond;
        filled_ -= 64;
    }
    /// For that many words, and for the fields of fixed size that an event or a part of it has.
    void makeRoom(std::size_t words) {
        constexpr std::size_t kFixed = 16;
        if (static_cast<std::size_t>(last_ - next_) >= words + kFixed) [[likely]]
            return;
        const auto used = static_cast<std::size_t>(next_ - buffer_->memory_.get());
        buffer_->grow(used, words + kFixed);
        next_ = buffer_->memory_.get() + used;
        last_ = buffer_->memory_.get() + buffer_->capacity_;
    }

    Buffer* buffer_;
    std::uint64_t* next_;  ///< where the word that is being gathered goes
    std::uint64_t* last_;  ///< behind the buffer's memory
    std::uint64_t gathered_ = 0;
    unsigned filled_ = 0;  ///< bits of it, always whole bytes
};

class Decoder {
public:
    explicit Decoder(Bytes bytes) : rest_(bytes) {}

    /// Throws FormatError.
    template <class... T>
    void operator()(T&&... fields) {
        (one(fields), ...);
    }
    bool atEnd() const { return rest_.empty(); }

private:
    Bytes take(std::uint64_t size) {
        if (size > rest_.size())
            throw FormatError("an event is cut off");
        const Bytes taken = rest_.first(size);
        rest_ = rest_.subspan(size);
        return taken;
    }
    template <detail::Number T>
    void one(T& value) {
        detail::Unsigned<T> read = 0;
        std::memcpy(&read, take(sizeof(T)).data(), sizeof(T));
        value = static_cast<T>(read);
        if (static_cast<detail::Unsigned<T>>(value) != read)
            throw FormatError("a number is too large");
    }
    template <class T>
    void one(ChangeNumber<T>& number) {
        number.value = 0;
        std::memcpy(&number.value, take(6).data(), 6);
    }
    std::uint32_t length() {
        std::uint32_t length = 0;
        one(length);
        return length;
    }
    void one(Bytes& value) { value = take(length()); }
    void one(Rest<Bytes>& last) { last.value = take(rest_.size()); }
    template <class T>
    void one(Rest<std::vector<T>>& last) {
        while (!rest_.empty())
            one(last.value.emplace_back());
    }
    void one(std::string_view& value) {
        const Bytes bytes = take(length());
        value = {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
    template <class T>
    void one(std::optional<T>& value) {
        bool isThere = false;
        one(isThere);
        if (isThere)
            one(value.emplace());
    }
    template <class T>
    void one(std::vector<T>& values) {
        const std::size_t count = length();
        if (count > rest_.size())
            throw FormatError("a list is longer than its event");
        values.resize(count);
        for (T& value : values)
            one(value);
    }
    template <class T>
    requires requires(T& value, Decoder& decoder) { T::fields(value, decoder); }
    void one(T& value) { T::fields(value, *this); }

    Bytes rest_;
};

/// Makes the buffer the event. Flat: the encoder stays in registers.
template <class Kind>
[[gnu::flatten]] void encode(const Kind& event, Buffer& buffer) {
    Encoder encoder(buffer);
    encoder(detail::kindOf<Kind>());
    Kind::fields(event, encoder);
    encoder.finish();
}
void encode(const Event& event, Buffer& buffer);

/// The event that the bytes are, which it refers to. Throws FormatError.
Event decode(Bytes bytes);

}  // namespace Recording
