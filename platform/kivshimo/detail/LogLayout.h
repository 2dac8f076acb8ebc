// How a change log lies in its area: the checks of all slots, then the records.
//
// Shared by the writer and the readers of change logs.
//
// What always holds:
//  1. Checks lie together: 8 bytes a slot are all that a mount or a search has to read, and eight
//     neighbours share a cache line. A full log of 2^20 slots has 8 MiB of them.
//  2. A record takes 32 bytes and never crosses a cache line.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

namespace KivShimo {

/// The version of a record: its member or accessor `version`, a number or something with `value`.
struct RecordVersion {
    template <class Record>
    std::uint64_t operator()(const Record& record) const {
        if constexpr (requires { record.version(); }) {
            return numberOf(record.version());
        } else {
            return numberOf(record.version);
        }
    }

private:
    template <class Version>
    static std::uint64_t numberOf(const Version& version) {
        if constexpr (requires { version.value; }) {
            return version.value;
        } else {
            return version;
        }
    }
};

namespace detail {

constexpr std::uint64_t versionLogSlots(std::uint64_t capacity) {
    return std::bit_ceil(capacity < 8 ? std::uint64_t{8} : capacity);
}
constexpr std::uint64_t versionLogBytes(std::uint64_t slots, std::size_t recordBytes) {
    return slots * (8 + recordBytes);
}

/// Words that are zero until written; pages that are never written take no memory.
class ZeroedWords {
public:
    explicit ZeroedWords(std::size_t count);

    std::uint64_t& operator[](std::size_t i) { return words_.get()[i]; }
    const std::uint64_t& operator[](std::size_t i) const { return words_.get()[i]; }

private:
    struct Free {
        void operator()(void* words) const { std::free(words); }
    };
    std::unique_ptr<std::uint64_t, Free> words_;
};

}  // namespace detail
}  // namespace KivShimo
