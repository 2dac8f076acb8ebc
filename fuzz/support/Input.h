// The bytes of one input, taken off piece by piece; zeros when nothing is left.
//
// One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <type_traits>

namespace Fuzz {

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }

    template <class Number>
    Number take() {
        static_assert(std::is_integral_v<Number>);
        Number number = 0;
        const std::size_t size = std::min(sizeof(Number), rest_.size());
        std::memcpy(&number, rest_.data(), size);
        rest_ = rest_.subspan(size);
        return number;
    }
    /// A number below the limit.
    std::size_t below(std::size_t limit) { return limit == 0 ? 0 : take<std::uint32_t>() % limit; }
    std::string takeText(std::size_t size) {
        size = std::min(size, rest_.size());
        std::string text(rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(size));
        rest_ = rest_.subspan(size);
        return text;
    }
    std::string takeRest() { return takeText(rest_.size()); }

private:
    std::span<const std::uint8_t> rest_;
};

}  // namespace Fuzz
