// Events as bytes: the kind, then its fields in their order.
//
// Any thread. Numbers are of variable length, seven bits a byte, the lowest first, the high bit set
// where another byte follows (LEB128 of the DWARF standard), but for Whole ones; a text or list is
// its length and its parts.
#pragma once

#include <bit>
#include <concepts>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
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

}  // namespace detail

inline constexpr std::size_t kMostNumberSize = 10;

/// Bytes that a number of variable length takes.
constexpr std::size_t numberSize(std::uint64_t value) {
    return (static_cast<std::size_t>(std::bit_width(value | 1U)) + 6) / 7;
}
/// Returns the place behind the number.
inline std::byte* putNumber(std::byte* place, std::uint64_t value) {
    for (; value >= 0x80; value >>= 7U)
        *place++ = static_cast<std::byte>(value | 0x80U);
    *place++ = static_cast<std::byte>(value);
    return place;
}

/// Bytes that grow, and keep their memory when they are cleared.
class Buffer {
public:
    void clear() { size_ = 0; }
    Bytes bytes() const { return {memory_.get(), size_}; }

    void number(std::uint64_t value) {
        std::byte* const place = room(kMostNumberSize);
        size_ += static_cast<std::size_t>(putNumber(place, value) - place);
    }
    /// As it lies in memory.
    template <class T>
    void whole(const T& value) {
        std::memcpy(room(sizeof(value)), &value, sizeof(value));
        size_ += sizeof(value);
    }
    void append(Bytes bytes) {
        if (bytes.empty())
            return;  // it may have no place to be copied from
        std::memcpy(room(bytes.size()), bytes.data(), bytes.size());
        size_ += bytes.size();
    }

private:
    std::byte* room(std::size_t more) {
        if (size_ + more > capacity_) [[unlikely]]
            grow(more);
        return memory_.get() + size_;
    }
    void grow(std::size_t more);

    std::unique_ptr<std::byte[]> memory_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

class Encoder {
public:
    explicit Encoder(Buffer& buffer) : buffer_(&buffer) {}

    template <class... T>
    void operator()(const T&... fields) {
        (one(fields), ...);
    }

private:
    template <class T>
    void one(const Whole<T>& field) {
        buffer_->whole(field.value);
    }
    template <detail::Number T>
    void one(T value) {
        buffer_->number(static_cast<std::uint64_t>(value));
    }
    void one(Bytes value) {
        buffer_->number(value.size());
        buffer_->append(value);
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
        buffer_->number(values.size());
        for (const T& value : values)
            one(value);
    }
    template <class T>
    requires requires(const T& value, Encoder& encoder) { T::fields(value, encoder); }
    void one(const T& value) { T::fields(value, *this); }

    Buffer* buffer_;
};

class Decoder {
public:
    explicit Decoder(Bytes bytes) : rest_(bytes) {}

    /// Throws FormatError.
    std::uint64_t number() {
        std::uint64_t value = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const auto byte = std::to_integer<std::uint64_t>(take(1).front());
            if (shift == 63 && byte > 1)
                throw FormatError("a number is too large");
            value |= (byte & 0x7FU) << shift;
            if (byte == 0 && shift != 0)
                throw FormatError("a number is longer than it has to be");
            if (byte < 0x80)
                return value;
        }
        throw FormatError("a number is too long");
    }
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
    template <class T>
    void one(Whole<T>& field) {
        std::memcpy(&field.value, take(sizeof(T)).data(), sizeof(T));
    }
    template <detail::Number T>
    void one(T& value) {
        const std::uint64_t read = number();
        value = static_cast<T>(read);
        if (static_cast<std::uint64_t>(value) != read)
            throw FormatError("a number is too large");
    }
    void one(Bytes& value) { value = take(number()); }
    void one(std::string_view& value) {
        const Bytes bytes = take(number());
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
        const std::uint64_t count = number();
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

/// Appends the event.
template <class Kind>
void encode(const Kind& event, Buffer& buffer) {
    static const std::uint64_t kKind = Event(std::in_place_type<Kind>).index();
    buffer.number(kKind);
    Encoder encoder(buffer);
    Kind::fields(event, encoder);
}
void encode(const Event& event, Buffer& buffer);

/// The event that the bytes are, which it refers to. Throws FormatError.
Event decode(Bytes bytes);

}  // namespace Recording
