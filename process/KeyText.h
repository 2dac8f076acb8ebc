// Keys from the text that their toText() makes.
//
// Any thread.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/resources/Keys.h"
#include "types/MatchFields.h"

namespace Process {

namespace detail {

/// "FIRST<separator>SECOND"; false where that is not what the text is, whole.
template <class First, class Second>
bool readPair(std::string_view text, char separator, First& first, int firstBase, Second& second,
              int secondBase) {
    const auto read = [](std::string_view part, auto& number, int base) {
        const char* const end = part.data() + part.size();
        const auto [rest, error] = std::from_chars(part.data(), end, number, base);
        return error == std::errc{} && rest == end;
    };
    const std::size_t at = text.find(separator);
    return at != std::string_view::npos && read(text.substr(0, at), first, firstBase) &&
           read(text.substr(at + 1), second, secondBase);
}

template <class Library>
bool read(std::string_view text, Asic::IndexRequestKey<Library>& key) {
    return readPair(text, '/', key.requestId, 16, key.unit, 10);
}
inline bool read(std::string_view text, VornPolicyCpu::PolicyCpuTcamActionEntryKey& key) {
    return readPair(text, '.', key.id, 16, key.sub, 10);
}
inline bool read(std::string_view text, VornPolicyCpu::MatchKey& key) {
    return readPair(text, '.', key.rule, 16, key.term, 16);
}

}  // namespace detail

/// Of a request to a resource table ("0000002a/1"), an action ("0000002a.0") or a match entry
/// ("0000002a.00000001"); leading zeros may be left out. Nothing for other text.
template <class Key>
std::optional<Key> keyFromText(std::string_view text) {
    Key key;
    return detail::read(text, key) ? std::optional(key) : std::nullopt;
}

}  // namespace Process
