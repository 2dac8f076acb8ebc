// Value-to-text conversion: what makes a value printable in traces and messages.
//
// A type prints by offering `std::string toText() const`; a Ptr prints what it points at, or
// "null".
#pragma once

#include <concepts>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/brumo/Ptr.h"

namespace Brumo {

template <class T>
concept Printable = requires(const T& value) {
    { value.toText() } -> std::convertible_to<std::string>;
};

}  // namespace Brumo

template <Brumo::Printable T>
struct fmt::formatter<T> : fmt::formatter<std::string_view> {
    template <class Context>
    auto format(const T& value, Context& context) const {
        return fmt::formatter<std::string_view>::format(std::string_view(value.toText()), context);
    }
};

template <class T>
requires Brumo::Printable<std::remove_const_t<T>>
struct fmt::formatter<Brumo::Ptr<T>> : fmt::formatter<std::string_view> {
    template <class Context>
    auto format(const Brumo::Ptr<T>& ptr, Context& context) const {
        return fmt::formatter<std::string_view>::format(ptr ? ptr->toText() : std::string("null"),
                                                        context);
    }
};
