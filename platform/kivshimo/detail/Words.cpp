// Checksums, and the out-of-line parts of words that verify themselves.
#include "platform/kivshimo/detail/Words.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <new>  // allow: bad_alloc is declared there

#include "platform/kivshimo/detail/LogLayout.h"

namespace KivShimo::detail {

std::uint64_t checksumOf(const void* bytes, std::size_t size, std::uint64_t seed) {
    const std::uint64_t sum = XXH3_64bits_withSeed(bytes, size, seed);
    return sum != 0 ? sum : 1;
}

std::optional<VerifiedWord::Reading> VerifiedWord::newest() const {
    std::optional<Reading> result;
    for (const Cell& cell : cells) {
        // The check was stored last: what it was stored with, and all before, is visible then.
        const std::uint64_t check = word(cell.check).load(std::memory_order_acquire);
        const std::uint64_t value = loaded(cell.value);
        const std::uint64_t serial = loaded(cell.serial);
        if (serial == 0 || check != Cell::checkOf(value, serial))
            continue;
        if (!result || serial > result->serial)
            result = Reading{value, serial};
    }
    return result;
}

std::optional<std::uint64_t> VerifiedWord::read() const {
    // Both cells are invalid at once only for a reader that two stores overtook.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const std::optional<Reading> reading = newest();
        if (reading)
            return reading->value;
    }
    return std::nullopt;
}

VerifiedWordWriter::VerifiedWordWriter(VerifiedWord& place) : place_(&place) {
    const std::optional<VerifiedWord::Reading> reading = place.newest();
    if (!reading) {
        rotten_ = true;
        return;
    }
    value_ = reading->value;
    serial_ = reading->serial;
}

ZeroedWords::ZeroedWords(std::size_t count)
    : words_(static_cast<std::uint64_t*>(std::calloc(count, sizeof(std::uint64_t)))) {
    if (words_ == nullptr)
        throw std::bad_alloc();
}

}  // namespace KivShimo::detail
