// All of an entry as "FIELD=VALUE" words, and back.
//
// Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "recording/Events.h"

namespace Recording {

/// A word of a line, split where it has a '='.
struct Word {
    std::string name;   ///< all of it where there is no '='
    std::string value;  ///< without quotes
    bool hasValue = false;
};

/// The word, with quotes where the value needs them.
std::string wordText(std::string_view name, std::string_view value);
/// Throws FormatError.
std::vector<Word> wordsOf(std::string_view line);

/// " FIELD=VALUE" for each field that is not as an entry has it that nobody touched; the bytes in
/// hexadecimal where they hold more than the fields say.
std::string entryText(std::uint32_t table, std::uint64_t key, Bytes image);
/// The image of the entry that the words describe. Throws FormatError.
std::vector<std::byte> entryImage(std::uint32_t table, std::uint64_t key,
                                  std::span<const Word> words);

/// Throws FormatError where the text is no number, or above `most`.
std::uint64_t numberIn(std::string_view text, std::uint64_t most = ~std::uint64_t{0});
std::string hexText(Bytes bytes);
/// Throws FormatError.
std::vector<std::byte> bytesOfHex(std::string_view text);

}  // namespace Recording
