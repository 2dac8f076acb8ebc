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
#include <utility>

#include "recording/Events.h"

namespace Recording {

/// Bytes that are no event.
class FormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

namespace detail {

using Length = std::uint32_t;
inline constexpr unsigned kNumberSize = 6;  ///< of a change

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
    } else if (at != 0) {
        std::memcpy(&value, bytes.data() + bytes.size() - kWordSize, kWordSize);
        value >>= 8 * (kWordSize - there);
    } else {
        std::memcpy(&value, bytes.data(), there);
    }
    return value;
}

/// Words that so many bytes take.
constexpr std::size_t wordCount(std::size_t bytes) {
    return (bytes + kWordSize - 1) / kWordSize;
}

/// An event as bytes, in whole words: zeros fill the last one. Keeps its memory.
class Buffer {
public:
    Buffer() = default;
    /// A copy of an event.
    explicit Buffer(Bytes event);

    Bytes bytes() const { return std::as_bytes(words()).first(size_); }
    std::span<const std::uint64_t> words() const { return {memory_.get(), wordCount(size_)}; }
    /// Makes it of so many bytes; what it held is gone. Returns its words, which whoever calls
    /// stores, all of them; valid until the next call.
    std::uint64_t* sizeIs(std::size_t size);

private:
    std::unique_ptr<std::uint64_t[]> memory_;
    std::size_t capacity_ = 0;  ///< words
    std::size_t size_ = 0;      ///< bytes
};

namespace detail {

/// Counts the bytes of an event. Of fields that are of fixed size the compiler knows how many.
struct Count {
    std::size_t bytes = 0;

    void operator()(std::uint64_t /*value*/, unsigned size) { bytes += size; }
    void operator()(Bytes value) { bytes += value.size(); }
};

/// Puts an event together in a register, and gives it to `store` as whole words, so that whoever
/// reads them next does not wait for smaller stores.
template <class Store>
class Pack {
public:
    explicit Pack(Store store) : store_(std::move(store)) {}

    /// REQUIRES: `value` has `size` bytes, at most 8. Where all of the event before it is of fixed
    /// size, the compiler knows what stands where.
    void operator()(std::uint64_t value, unsigned size) {
        const std::uint64_t beyond = (value >> 1U) >> (63 - filled_);
        gathered_ |= value << filled_;
        filled_ += 8 * size;
        if (filled_ < 64)
            return;
        store_(gathered_);
        gathered_ = beyond;
        filled_ -= 64;
    }
    void operator()(Bytes value) {
        for (; value.size() >= kWordSize; value = value.subspan(kWordSize))
            (*this)(wordAt(value, 0), kWordSize);
        if (!value.empty())
            (*this)(wordAt(value, 0), static_cast<unsigned>(value.size()));
    }
    /// REQUIRES: called once, in the end.
    Store finish() {
        if (filled_ != 0)
            store_(gathered_);
        return std::move(store_);
    }

private:
    Store store_;
    std::uint64_t gathered_ = 0;
    unsigned filled_ = 0;  ///< bits of it, always whole bytes
};

/// Gives the fields of an event to `put`, as numbers with their sizes and as bytes.
template <class Put>
class Encoder {
public:
    explicit Encoder(Put& put) : put_(put) {}

    template <class... T>
    void operator()(const T&... fields) {
        (one(fields), ...);
    }

private:
    template <Number T>
    void one(T value) {
        put_(static_cast<std::uint64_t>(static_cast<Unsigned<T>>(value)), sizeof(T));
    }
    template <class T>
    void one(const ChangeNumber<T>& number) {
        put_(number.value, kNumberSize);
    }
    void one(Bytes value) {
        one(static_cast<Length>(value.size()));
        put_(value);
    }
    template <class T>
    requires std::same_as<std::remove_const_t<T>, Bytes>
    void one(const Rest<T>& last) { put_(last.value); }
    void one(std::string_view value) { one(std::as_bytes(std::span(value))); }
    template <class T>
    void one(const std::optional<T>& value) {
        one(value.has_value());
        if (value)
            one(*value);
    }
    template <class T>
    void one(const std::vector<T>& values) {
        one(static_cast<Length>(values.size()));
        one(rest(values));
    }
    template <class T>
    void one(const Rest<const std::vector<T>>& values) {
        for (const T& value : values.value)
            one(value);
    }
    template <class T>
    requires requires(const T& value, Encoder& encoder) { T::fields(value, encoder); }
    void one(const T& value) { T::fields(value, *this); }

    Put& put_;
};

/// What `put` is when it has been given all of the event.
template <class Kind, class Put>
Put encoded(const Kind& event, Put put) {
    Encoder<Put> encoder(put);
    encoder(kindOf<Kind>());
    Kind::fields(event, encoder);
    return put;
}

}  // namespace detail

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
        std::memcpy(&number.value, take(detail::kNumberSize).data(), detail::kNumberSize);
    }
    detail::Length length() {
        detail::Length length = 0;
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

/// Bytes of an event.
template <class Kind>
std::size_t sizeOf(const Kind& event) {
    return detail::encoded(event, detail::Count()).bytes;
}
/// Gives the words of an event to `store` in their order, and returns it. By value: in a caller
/// that is flat all of it stays in registers.
template <class Kind, class Store>
Store storeWords(const Kind& event, Store store) {
    return detail::encoded(event, detail::Pack<Store>(std::move(store))).finish();
}
/// Makes the buffer the event.
template <class Kind>
[[gnu::flatten]] void encode(const Kind& event, Buffer& buffer) {
    std::uint64_t* words = buffer.sizeIs(sizeOf(event));
    storeWords(event, [words](std::uint64_t word) mutable { *words++ = word; });
}
void encode(const Event& event, Buffer& buffer);

/// The event that the bytes are, which it refers to. Throws FormatError.
Event decode(Bytes bytes);

}  // namespace Recording
