#include "recording/EntryText.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>

#include <fmt/format.h>

#include "process/HeaderText.h"
#include "process/KeyText.h"
#include "recording/Codec.h"
#include "recording/EntryFields.h"
#include "recording/Names.h"
#include "recording/PackedEntry.h"
#include "types/EntryImage.h"

namespace Recording {

namespace {

using VornPolicyCpu::EntryImage;
using VornPolicyCpu::PolicyCpuTcamActionEntryKey;
using VornPolicyCpu::PolicyCpuTcamActionTypes;
using VornPolicyCpu::PolicyCpuV4TcamEntryTypes;
using VornPolicyCpu::PolicyCpuV6TcamEntryTypes;

/// The field of an entry that holds all that its fields do not.
constexpr std::string_view kImage = "image";

// A value as text.

template <std::unsigned_integral T>
std::string valueText(T value) {
    return std::to_string(value);
}
template <class Enum>
requires std::is_enum_v<Enum> std::string valueText(Enum value) {
    return std::to_string(static_cast<unsigned>(value));
}
template <class T>
std::string valueText(const Brumo::Unaligned<T>& value) {
    return valueText(value.get());
}
template <std::size_t Size>
std::string valueText(const std::array<char, Size>& text) {
    std::string value(text.begin(), text.end());
    value.erase(value.find_last_not_of('\0') + 1);
    return value;
}
template <class Library>
std::string valueText(const Asic::IndexRequestKey<Library>& key) {
    return key.toText();
}
std::string valueText(const PolicyCpuTcamActionEntryKey& key) {
    return key.toText();
}
std::string valueText(const V4Address& address) {
    return Process::v4Text(address.value);
}
std::string valueText(const Process::V6Bytes& address) {
    return Process::v6Text(address);
}

// A value from text. False where the text is none.

template <std::unsigned_integral T>
bool parse(std::string_view text, T& value) {
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    return error == std::errc{} && rest == end;
}
template <class Enum>
requires std::is_enum_v<Enum>
bool parse(std::string_view text, Enum& value) {
    std::underlying_type_t<Enum> number{};
    const bool isRead = parse(text, number);
    value = static_cast<Enum>(number);
    return isRead;
}
template <class T>
bool parse(std::string_view text, Brumo::Unaligned<T>& value) {
    T number{};
    const bool isRead = parse(text, number);
    value = number;
    return isRead;
}
template <std::size_t Size>
bool parse(std::string_view text, std::array<char, Size>& value) {
    if (text.size() > Size)
        return false;
    value = {};
    std::ranges::copy(text, value.begin());
    return true;
}
template <class Key>
bool readKey(std::string_view text, Key& key) {
    const auto found = Process::keyFromText<Key>(text);
    key = found.value_or(Key{});
    return found.has_value();
}
template <class Library>
bool parse(std::string_view text, Asic::IndexRequestKey<Library>& key) {
    return readKey(text, key);
}
bool parse(std::string_view text, PolicyCpuTcamActionEntryKey& key) {
    return readKey(text, key);
}
bool parse(std::string_view text, const V4Address& address) {
    in_addr found{};
    const bool isRead = ::inet_pton(AF_INET, std::string(text).c_str(), &found) == 1;
    address.value = ntohl(found.s_addr);
    return isRead;
}
bool parse(std::string_view text, Process::V6Bytes& address) {
    return ::inet_pton(AF_INET6, std::string(text).c_str(), address.data()) == 1;
}

bool isTableOfEntries(std::uint32_t table) {
    return table == PolicyCpuTcamActionTypes::kTableId.whole() ||
           table == PolicyCpuV4TcamEntryTypes::kTableId.whole() ||
           table == PolicyCpuV6TcamEntryTypes::kTableId.whole();
}

/// Calls `use.operator()<Types>()` with the types of a table of entries. Throws FormatError.
template <class Use>
decltype(auto) withTypes(std::uint32_t table, Use&& use) {
    static_assert(EntryImage<PolicyCpuTcamActionTypes>::kSize <= PackedEntry::kMostBytes &&
                  EntryImage<PolicyCpuV4TcamEntryTypes>::kSize <= PackedEntry::kMostBytes &&
                  EntryImage<PolicyCpuV6TcamEntryTypes>::kSize <= PackedEntry::kMostBytes);
    if (table == PolicyCpuTcamActionTypes::kTableId.whole())
        return use.template operator()<PolicyCpuTcamActionTypes>();
    if (table == PolicyCpuV4TcamEntryTypes::kTableId.whole())
        return use.template operator()<PolicyCpuV4TcamEntryTypes>();
    if (table == PolicyCpuV6TcamEntryTypes::kTableId.whole())
        return use.template operator()<PolicyCpuV6TcamEntryTypes>();
    throw FormatError(fmt::format("{} is no table of entries", tableName(table)));
}

bool isPlain(std::string_view value) {
    return !value.empty() && std::ranges::all_of(value, [](char each) {
        return (each >= '0' && each <= '9') || (each >= 'a' && each <= 'z') ||
               (each >= 'A' && each <= 'Z') ||
               std::string_view("-_.:/,#").find(each) != std::string_view::npos;
    });
}

std::string quoted(std::string_view value) {
    std::string text = "\"";
    for (const char each : value) {
        const auto byte = static_cast<unsigned char>(each);
        if (each == '"' || each == '\\') {
            text += '\\';
            text += each;
        } else if (byte < 0x20 || byte >= 0x7F) {
            text += fmt::format("\\x{:02x}", byte);
        } else {
            text += each;
        }
    }
    return text + '"';
}

/// The value at the beginning of the text, which it is taken from.
std::string takeValue(std::string_view& rest) {
    std::string value;
    if (!rest.starts_with('"')) {
        const std::size_t end = std::min(rest.find(' '), rest.size());
        value = rest.substr(0, end);
        rest.remove_prefix(end);
        return value;
    }
    for (rest.remove_prefix(1); !rest.empty() && rest.front() != '"'; rest.remove_prefix(1)) {
        if (rest.front() != '\\') {
            value += rest.front();
        } else if (rest.size() >= 4 && rest[1] == 'x') {
            value += static_cast<char>(bytesOfHex(rest.substr(2, 2)).front());
            rest.remove_prefix(3);
        } else if (rest.size() >= 2) {
            value += rest[1];
            rest.remove_prefix(1);
        }
    }
    if (rest.empty())
        throw FormatError("a text has no closing quote");
    rest.remove_prefix(1);
    return value;
}

template <class Types>
std::vector<std::byte> imageOf(std::uint64_t key, std::span<const Word> words) {
    typename Types::Entry entry;
    entry.key = std::bit_cast<typename Types::Key>(key);
    for (const Word& word : words) {
        bool isKnown = false;
        forEachField(entry, [&](std::string_view name, auto&& field) {
            if (name != word.name)
                return;
            isKnown = true;
            if (!parse(word.value, field))
                throw FormatError(fmt::format("'{}' is no {}", word.value, name));
        });
        if (!isKnown)
            throw FormatError(fmt::format("no field '{}'", word.name));
    }
    const EntryImage<Types> image(entry);
    return {image.bytes().begin(), image.bytes().end()};
}

}  // namespace

std::string wordText(std::string_view name, std::string_view value) {
    return fmt::format("{}={}", name, isPlain(value) ? std::string(value) : quoted(value));
}

std::vector<Word> wordsOf(std::string_view line) {
    std::vector<Word> words;
    for (;;) {
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        if (line.empty())
            return words;
        Word word;
        const std::size_t end = std::min(line.find_first_of(" ="), line.size());
        word.hasValue = end < line.size() && line[end] == '=' && end != 0;
        if (line.starts_with('"') || line.starts_with('=') || !word.hasValue) {
            word.hasValue = false;
            word.name = takeValue(line);
        } else {
            word.name = line.substr(0, end);
            line.remove_prefix(end + 1);
            word.value = takeValue(line);
        }
        words.push_back(std::move(word));
    }
}

std::string entryText(std::uint32_t table, std::uint64_t key, Bytes image) {
    if (!isTableOfEntries(table))
        return fmt::format(" {}={}", kImage, hexText(image));
    return withTypes(table, [&]<class Types>() {
        const auto entry = EntryImage<Types>::entryOf(image);
        std::string text;
        std::vector<Word> words;
        if (entry.has_value()) {
            typename Types::Entry written = *entry;
            std::vector<std::string> untouched;
            typename Types::Entry none;
            forEachField(none, [&](std::string_view, auto&& field) {
                untouched.push_back(valueText(field));
            });
            std::size_t at = 0;
            forEachField(written, [&](std::string_view name, auto&& field) {
                const std::string value = valueText(field);
                if (value == untouched[at++])
                    return;
                words.push_back({std::string(name), value, true});
                text += ' ' + wordText(name, value);
            });
            if (sameBytes(imageOf<Types>(key, words), image))
                return text;
        }
        return fmt::format(" {}={}", kImage, hexText(image));
    });
}

std::vector<std::byte> entryImage(std::uint32_t table, std::uint64_t key,
                                  std::span<const Word> words) {
    if (words.size() == 1 && words.front().name == kImage) {
        std::vector<std::byte> image = bytesOfHex(words.front().value);
        if (image.size() > PackedEntry::kMostBytes)
            throw FormatError(fmt::format("an image of {} bytes is too large", image.size()));
        return image;
    }
    return withTypes(table, [&]<class Types>() { return imageOf<Types>(key, words); });
}

std::uint64_t numberIn(std::string_view text, std::uint64_t most) {
    std::uint64_t number = 0;
    if (!parse(text, number) || number > most)
        throw FormatError(fmt::format("'{}' is no number up to {}", text, most));
    return number;
}

std::string hexText(Bytes bytes) {
    std::string text;
    for (const std::byte byte : bytes)
        text += fmt::format("{:02x}", std::to_integer<unsigned>(byte));
    return text;
}

std::vector<std::byte> bytesOfHex(std::string_view text) {
    std::vector<std::byte> bytes;
    for (std::size_t at = 0; at < text.size(); at += 2) {
        const std::string_view pair = text.substr(at, 2);
        unsigned value = 0;
        const auto [rest, error] =
            std::from_chars(pair.data(), pair.data() + pair.size(), value, 16);
        if (pair.size() != 2 || error != std::errc{} || rest != pair.data() + 2)
            throw FormatError(fmt::format("'{}' are no bytes in hexadecimal", text));
        bytes.push_back(static_cast<std::byte>(value));
    }
    return bytes;
}

}  // namespace Recording
