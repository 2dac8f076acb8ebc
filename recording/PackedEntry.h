// The image of an entry without its zeros, of which most of it consists.
//
// A word that says the image's size in bytes (the low 16 bits) and which of its words are not zero
// (a bit each), then those, in their order. The last one is filled with zeros.
//
// Plain values: any thread.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "recording/Events.h"

namespace Recording {

class PackedEntry {
public:
    static constexpr std::size_t kMostWords = 48;
    static constexpr std::size_t kMostBytes = kMostWords * sizeof(std::uint64_t);

    /// REQUIRES: at most kMostBytes.
    explicit PackedEntry(Bytes image);
    Bytes bytes() const { return std::as_bytes(std::span(words_)).first(size_); }

private:
    std::array<std::uint64_t, 1 + kMostWords> words_;
    std::size_t size_;
};

/// Whether the bytes are an image in its one packed form.
bool isPackedEntry(Bytes packed);
/// The image. REQUIRES: isPackedEntry().
std::vector<std::byte> unpackedEntry(Bytes packed);

}  // namespace Recording
