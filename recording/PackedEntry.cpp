#include "recording/PackedEntry.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "platform/brumo/Assert.h"
#include "recording/Codec.h"

namespace Recording {

namespace {

constexpr unsigned kMaskPlace = 16;

}  // namespace

/// Which words are zero is nearly always the same for one kind of entry, and foreseen.
PackedEntry::PackedEntry(Bytes image) {
    Brumo::require(image.size() <= kMostBytes, "an entry can be packed");
    std::uint64_t mask = 0;
    std::uint64_t* next = words_.data() + 1;
    const auto add = [&](std::size_t word, std::uint64_t value) {
        if (value == 0)
            return;
        *next++ = value;
        mask |= std::uint64_t{1} << word;
    };
    // A whole word, of which wordAt() would ask each time whether it is one.
    const auto load = [&](std::size_t at) {
        std::uint64_t value = 0;
        std::memcpy(&value, image.data() + at * kWordSize, kWordSize);
        return value;
    };
    const std::size_t whole = image.size() / kWordSize;
    std::size_t word = 0;
    for (; word + 3 < whole; word += 4) {
        const std::uint64_t first = load(word);
        const std::uint64_t second = load(word + 1);
        const std::uint64_t third = load(word + 2);
        const std::uint64_t fourth = load(word + 3);
        if ((first | second | third | fourth) == 0)
            continue;
        add(word, first);
        add(word + 1, second);
        add(word + 2, third);
        add(word + 3, fourth);
    }
    for (; word < whole; ++word)
        add(word, load(word));
    if (image.size() % kWordSize != 0)
        add(whole, wordAt(image, whole));
    words_[0] = mask << kMaskPlace | image.size();
    size_ = static_cast<std::size_t>(next - words_.data()) * kWordSize;
}

bool isPackedEntry(Bytes packed) {
    if (packed.size() < kWordSize || packed.size() % kWordSize != 0)
        return false;
    const std::uint64_t size = wordAt(packed, 0) & 0xFFFFU;
    const std::uint64_t mask = wordAt(packed, 0) >> kMaskPlace;
    if (size > PackedEntry::kMostBytes || mask >> wordCount(size) != 0)
        return false;
    if (packed.size() != (1 + static_cast<std::size_t>(std::popcount(mask))) * kWordSize)
        return false;
    // No word is zero, and an image of these bytes packs to them.
    const std::vector<std::byte> image = unpackedEntry(packed);
    const PackedEntry again(image);
    return sameBytes(again.bytes(), packed);
}

std::vector<std::byte> unpackedEntry(Bytes packed) {
    std::vector<std::byte> image(wordAt(packed, 0) & 0xFFFFU);
    std::uint64_t mask = wordAt(packed, 0) >> kMaskPlace;
    for (std::size_t next = 1; mask != 0; mask &= mask - 1, ++next) {
        const std::uint64_t value = wordAt(packed, next);
        const std::size_t at = static_cast<std::size_t>(std::countr_zero(mask)) * kWordSize;
        std::memcpy(image.data() + at, &value, std::min(kWordSize, image.size() - at));
    }
    return image;
}

}  // namespace Recording
