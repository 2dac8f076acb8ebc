// Events as bytes: the kind, then its fields in their order.
//
// Any thread. Numbers are of variable length, seven bits a byte, the lowest first, the high bit set
// where another byte follows (LEB128 of the DWARF standard); a text or list is its length and its
// parts.
#pragma once

#include <concepts>
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

class Encoder {
public:
    explicit Encoder(std::vector<std::byte>& bytes) : bytes_(&bytes) {}

    void number(std::uint64_t value) {
        for (; value >= 0x80; value >>= 7U)
            bytes_->push_back(static_cast<std::byte>(value | 0x80U));
        bytes_->push_back(static_cast<std::byte>(value));
    }
    template <class... T>
    void operator()(const T&... fields) {
        (one(fields), ...);
    }

private:
    template <detail::Number T>
    void one(T value) {
        number(static_cast<std::uint64_t>(value));
    }
    void one(Bytes value) {
        number(value.size());
        bytes_->insert(bytes_->end(), value.begin(), value.end());
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
        number(values.size());
        for (const T& value : values)
            one(value);
    }
    template <class T>
    requires requires(const T& value, Encoder& encoder) { T::fields(value, encoder); }
    void one(const T& value) { T::fields(value, *this); }

    std::vector<std::byte>* bytes_;
};

class Decoder {
public:
    explicit Decoder(Bytes bytes) : rest_(bytes) {}

    /// Throws FormatError.
    std::uint64_t number() {
        std::uint64_t value = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const auto byte = std::to_integer<std::uint64_t>(take(1).front());
            value |= (byte & 0x7FU) << shift;
            if (byte < 0x80)
                return value;
        }
        throw FormatError("a number is too long");
    }
    template <class... T>
    void operator()(T&... fields) {
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
void encode(const Kind& event, std::vector<std::byte>& bytes) {
    bytes.push_back(static_cast<std::byte>(Event(std::in_place_type<Kind>).index()));
    Encoder encoder(bytes);
    Kind::fields(event, encoder);
}
void encode(const Event& event, std::vector<std::byte>& bytes);

/// The event that the bytes are, which it refers to. Throws FormatError.
Event decode(Bytes bytes);

}  // namespace Recording
