// Fields of entries compared with what somebody wants to see.
#include "inspect/Match.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <charconv>

#include <fmt/format.h>

#include "hwside/Packet.h"
#include "inspect/Errors.h"

namespace Inspect {

namespace {

constexpr std::array<std::string_view, 6> kTexts{"key",  "label",       "name",
                                                 "mode", "disposition", "action"};
constexpr std::array<std::string_view, 5> kNumbers{"priority", "counter", "policer", "rate",
                                                   "burst"};
/// An address and the bits of it that count, in the order of the wire.
struct Bits {
    std::vector<std::uint8_t> address;
    std::vector<std::uint8_t> mask;
};

std::vector<std::uint8_t> addressBytes(const std::string& text) {
    if (const auto v4 = HwSide::v4FromText(text)) {
        std::vector<std::uint8_t> bytes;
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<std::uint8_t>(*v4 >> static_cast<unsigned>(shift)));
        return bytes;
    }
    if (const auto v6 = HwSide::v6FromText(text))
        return {v6->begin(), v6->end()};
    return {};
}

std::optional<unsigned> numberIn(std::string_view text, int base = 10) {
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    return whole ? std::optional(number) : std::nullopt;
}

/// "ADDRESS", "ADDRESS/LENGTH" or "ADDRESS mask MASK".
std::optional<Bits> bitsIn(const std::string& text) {
    constexpr std::string_view kMask = " mask ";
    const std::size_t masked = text.find(kMask);
    const std::size_t slash = text.find('/');
    Bits bits{addressBytes(text.substr(0, std::min(masked, slash))), {}};
    if (bits.address.empty())
        return std::nullopt;
    if (masked != std::string::npos) {
        bits.mask = addressBytes(text.substr(masked + kMask.size()));
        return bits.mask.size() == bits.address.size() ? std::optional(bits) : std::nullopt;
    }
    const auto most = static_cast<unsigned>(bits.address.size() * 8);
    const auto length = slash == std::string::npos
                            ? std::optional(most)
                            : numberIn(std::string_view(text).substr(slash + 1));
    if (!length || *length > most)
        return std::nullopt;
    for (std::size_t i = 0; i < bits.address.size(); ++i) {
        const unsigned ones =
            std::min(8U, *length - std::min(*length, static_cast<unsigned>(i) * 8));
        bits.mask.push_back(static_cast<std::uint8_t>(0xFF00U >> ones));
    }
    return bits;
}

bool haveCommon(const Bits& left, const Bits& right) {
    if (left.address.size() != right.address.size())
        return false;
    for (std::size_t i = 0; i < left.address.size(); ++i) {
        if (((left.address[i] ^ right.address[i]) & left.mask[i] & right.mask[i]) != 0)
            return false;
    }
    return true;
}

struct NumberRange {
    unsigned low = 0;
    unsigned high = 0;
};

std::optional<NumberRange> rangeIn(const std::string& text) {
    const std::size_t dash = text.find('-');
    const auto low = numberIn(std::string_view(text).substr(0, dash));
    const auto high =
        dash == std::string::npos ? low : numberIn(std::string_view(text).substr(dash + 1));
    return low && high ? std::optional(NumberRange{*low, *high}) : std::nullopt;
}

/// "0x02/0x12", or a number all of whose bits count.
std::optional<NumberRange> maskedIn(const std::string& text) {
    const auto number = [](std::string_view part) {
        return part.starts_with("0x") ? numberIn(part.substr(2), 16) : numberIn(part);
    };
    const std::size_t slash = text.find('/');
    const auto value = number(std::string_view(text).substr(0, slash));
    const auto mask = slash == std::string::npos ? std::optional(0xFFU)
                                                 : number(std::string_view(text).substr(slash + 1));
    return value && mask ? std::optional(NumberRange{*value, *mask}) : std::nullopt;
}

bool isFieldMet(const std::string& field, const std::string& held, const std::string& wanted) {
    if (held == wanted)
        return true;
    if (field == "src" || field == "dst") {
        const auto left = bitsIn(held);
        const auto right = bitsIn(wanted);
        return left && right && haveCommon(*left, *right);
    }
    if (field == "sport" || field == "dport") {
        const auto left = rangeIn(held);
        const auto right = rangeIn(wanted);
        return left && right && left->low <= right->high && right->low <= left->high;
    }
    if (field == "proto") {
        const auto protocol = HwSide::protocolFromText(wanted);
        return protocol && HwSide::protocolText(*protocol) == held;
    }
    const auto left = maskedIn(held);
    const auto right = maskedIn(wanted);
    return left && right && ((left->low ^ right->low) & left->high & right->high) == 0;
}

bool isValueMet(const std::string& field, const std::string& wanted) {
    if (field == "src" || field == "dst")
        return bitsIn(wanted).has_value();
    if (field == "sport" || field == "dport")
        return rangeIn(wanted).has_value();
    if (field == "proto")
        return HwSide::protocolFromText(wanted).has_value();
    return maskedIn(wanted).has_value();
}

bool isGlobMet(const std::string& glob, const std::string& text) {
    return fnmatch(glob.c_str(), text.c_str(), 0) == 0;
}

std::string jsonText(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace

Match::Match(const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
        throw QuestionError(fmt::format("'{}': expected FIELD=VALUE, such as dport=179", text));
    field_ = text.substr(0, equals);
    wanted_ = text.substr(equals + 1);
    const auto isKnown = [&](const auto& names) {
        return std::ranges::find(names, field_) != names.end();
    };
    if (isKnown(kMatchFields)) {
        if (!isValueMet(field_, wanted_))
            throw QuestionError(fmt::format("'{}': no value for field {}", wanted_, field_));
    } else if (field_ == "label" || field_ == "name") {
        // Wildcards mean what is stored; a whole name may be longer than that.
        if (wanted_.find_first_of("*?[\\") == std::string::npos)
            wanted_ = storedName(field_ == "name" ? Table::action : Table::v4, wanted_);
    } else if (!isKnown(kTexts) && !isKnown(kNumbers)) {
        throw QuestionError(fmt::format("'{}': there is no such field; known: {}, {}, {}", field_,
                                        fmt::join(kMatchFields, ", "), fmt::join(kTexts, ", "),
                                        fmt::join(kNumbers, ", ")));
    }
}

bool Match::isMet(const Entry& entry) const {
    const auto member = entry.content.find(field_);
    if (member != entry.content.end())
        return isGlobMet(wanted_, jsonText(*member));
    const auto fields = entry.content.find("fields");
    if (fields == entry.content.end())
        return false;
    const auto held = fields->find(field_);
    return held != fields->end() && isFieldMet(field_, held->get<std::string>(), wanted_);
}

bool Filter::isMet(const Entry& entry) const {
    if (!isMet(entry.id.table) || (unit && *unit != entry.id.unit))
        return false;
    if (!action.empty() && !actionKeys.contains(entry.content.value("action", std::string())))
        return false;
    return std::ranges::all_of(matches, [&](const Match& match) { return match.isMet(entry); });
}

Filter withActionKeys(Filter filter, const State& state) {
    if (filter.action.empty())
        return filter;
    if (const auto key = keyText(Table::action, filter.action)) {
        filter.actionKeys = {*key};
        return filter;
    }
    const std::string name = storedName(Table::action, filter.action);
    for (const std::uint16_t unit : state.units(Table::action)) {
        for (const Entry& entry : state.entries(Table::action, unit, [](const Damage&) {})) {
            if (entry.name() == name)
                filter.actionKeys.insert(entry.id.key);
        }
    }
    if (filter.actionKeys.empty()) {
        throw QuestionError(
            fmt::format("'{}' is neither the key nor the name of an action", filter.action));
    }
    return filter;
}

}  // namespace Inspect
