// Checksums, and the out-of-line parts of words that verify themselves.
#include "platform/kivshimo/detail/Words.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <cstdlib>
#include <new>  // allow: bad_alloc is declared there

#include "platform/kivshimo/detail/LogLayout.h"

namespace KivShimo::detail {

std::uint64_t checksumOf(const void* bytes, std::size_t size, std::uint64_t seed) {
    const std::uint64_t sum = XXH3_64bits_withSeed(bytes, size, seed);
    return sum != 0 ? sum : 1;
}

namespace {

using Cell = VerifiedWord::Cell;

/// A cell as it was at one moment; empty while it is stored, and before it ever was.
std::optional<Cell> settled(const Cell& place) {
    // The check was stored last: what it was stored with, and all before, is visible then.
    const std::uint64_t check = word(place.check).load(std::memory_order_acquire);
    const Cell cell{loaded(place.value), loaded(place.serial), check};
    std::atomic_thread_fence(std::memory_order_acquire);
    if (check == 0 || loaded(place.check) != check)
        return std::nullopt;
    return cell;
}

bool verifies(const Cell& cell, std::uint64_t seed) {
    return cell.serial != 0 && cell.check == Cell::checkOf(cell.value, cell.serial, seed);
}

/// Whether a cell that does not verify is the one that was stored before the other, of that serial.
/// Any one of its words may be wrong, the serial too.
bool isOlder(const Cell& rotten, std::uint64_t serial, std::uint64_t seed) {
    if (rotten.check == Cell::checkOf(rotten.value, serial - 1, seed))
        return true;
    return rotten.serial == serial - 1 &&
           rotten.check != Cell::checkOf(rotten.value, serial + 1, seed);
}

/// The value, when it is known with one look at each word, as it nearly always is: both cells are
/// whole and were stored one after the other; or one is whole, and the other is being stored or
/// never was.
std::optional<std::uint64_t> atOneLook(const VerifiedWord& stored, std::uint64_t seed) {
    const Cell& first = stored.cells[0];
    const Cell& second = stored.cells[1];
    const std::uint64_t check = word(first.check).load(std::memory_order_acquire);
    const std::uint64_t otherCheck = word(second.check).load(std::memory_order_acquire);
    const std::uint64_t value = loaded(first.value);
    const std::uint64_t otherValue = loaded(second.value);
    const std::uint64_t serial = loaded(first.serial);
    const std::uint64_t otherSerial = loaded(second.serial);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (loaded(first.check) != check || loaded(second.check) != otherCheck)
        return std::nullopt;
    const bool isWhole = serial != 0 && check == Cell::checkOf(value, serial, seed);
    const bool isOtherWhole =
        otherSerial != 0 && otherCheck == Cell::checkOf(otherValue, otherSerial, seed);
    if (isWhole && (otherCheck == 0 || (isOtherWhole && serial == otherSerial + 1)))
        return value;
    if (isOtherWhole && (check == 0 || (isWhole && otherSerial == serial + 1)))
        return otherValue;
    return std::nullopt;
}

}  // namespace

VerifiedWord::Reading VerifiedWord::reading(std::uint64_t seed) const {
    const std::optional<Cell> both[2] = {settled(cells[0]), settled(cells[1])};
    Reading result;
    for (const auto& cell : both) {
        if (cell && verifies(*cell, seed) && cell->serial > result.serial)
            result = {cell->value, cell->serial, false};
    }
    result.rotten = result.serial == 0;
    for (const auto& cell : both) {
        if (cell && !verifies(*cell, seed) && !isOlder(*cell, result.serial, seed))
            result.rotten = true;
    }
    return result;
}

std::optional<std::uint64_t> VerifiedWord::read(std::uint64_t seed) const {
    if (const std::optional<std::uint64_t> value = atOneLook(*this, seed)) [[likely]]
        return value;
    // What seems rotten, or older than what was read before, may be what the writer's stores have
    // overtaken: then a cell has changed meanwhile.
    std::optional<std::uint64_t> last;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const std::uint64_t checks[2] = {word(cells[0].check).load(std::memory_order_acquire),
                                         word(cells[1].check).load(std::memory_order_acquire)};
        const Reading now = reading(seed);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (now.rotten)
            continue;
        if (loaded(cells[0].check) == checks[0] && loaded(cells[1].check) == checks[1])
            return now.value;
        last = std::max(last.value_or(0), now.value);
    }
    return last;
}

VerifiedWordWriter::VerifiedWordWriter(VerifiedWord& place, std::uint64_t seed)
    : place_(&place), seed_(seed) {
    const VerifiedWord::Reading stored = place.reading(seed);
    value_ = stored.value;
    serial_ = stored.serial;
    rotten_ = clears_ = stored.rotten;
}

ZeroedWords::ZeroedWords(std::size_t count)
    : words_(static_cast<std::uint64_t*>(std::calloc(count, sizeof(std::uint64_t)))) {
    if (words_ == nullptr)
        throw std::bad_alloc();
}

}  // namespace KivShimo::detail
