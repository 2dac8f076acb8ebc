// Words for entries and changes.
#include "inspect/Text.h"

#include <fmt/format.h>

namespace Inspect {

std::string shown(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const auto next = at + 1 < text.size() ? static_cast<unsigned char>(text[at + 1]) : 0U;
        const bool isLate = byte == 0xC2U && next >= 0x80U && next < 0xA0U;  // U+0080 to U+009F
        if (byte >= 0x20U && byte != 0x7FU && !isLate) {
            result += text[at];
            continue;
        }
        result += byte == '\t' ? ' ' : '?';
        at += isLate ? 1 : 0;
    }
    return result;
}

std::string stringIn(const Json& object, const std::string& name) {
    const auto member = object.find(name);
    return member != object.end() && member->is_string() ? member->get<std::string>()
                                                         : std::string();
}

std::string numberText(const Json& object, const std::string& name) {
    const auto member = object.find(name);
    if (member == object.end() || member->is_null())
        return "-";
    return member->is_number_float() ? fmt::format("{:.2f}", member->get<double>())
                                     : member->dump();
}

std::string matchText(const Json& content) {
    std::string text;
    const Json fields = content.value("fields", Json::object());
    for (const auto& [name, value] : fields.items()) {
        text += fmt::format("{}{} {}", text.empty() ? "" : " ", name, value.get<std::string>());
    }
    return text.empty() ? "any" : text;
}

std::string rateText(const Json& content) {
    const std::string mode = stringIn(content, "mode");
    if (mode.empty() || mode == "none")
        return {};
    return fmt::format("{} {}, burst {}", numberText(content, "rate"), mode,
                       numberText(content, "burst"));
}

std::string entryText(const Json& content) {
    if (content.contains("disposition")) {
        const std::string rate = rateText(content);
        return fmt::format("{} {}, counter {}, policer {}{}", stringIn(content, "name"),
                           stringIn(content, "disposition"), numberText(content, "counter"),
                           numberText(content, "policer"), rate.empty() ? "" : ", " + rate);
    }
    return fmt::format("{} priority {}: {}, action {}", stringIn(content, "label"),
                       numberText(content, "priority"), matchText(content),
                       stringIn(content, "action"));
}

std::string ageText(double seconds) {
    constexpr double kMinute_s = 60;
    constexpr double kHour_s = 3600;
    if (seconds < 10)
        return fmt::format("{:.1f} s", seconds);
    if (seconds < 2 * kMinute_s)
        return fmt::format("{:.0f} s", seconds);
    return seconds < 2 * kHour_s ? fmt::format("{:.0f} min", seconds / kMinute_s)
                                 : fmt::format("{:.1f} h", seconds / kHour_s);
}

std::string_view placeOf(const Entry& entry, std::uint64_t acknowledged) {
    if (entry.inDeletion)
        return "removing";
    return entry.version > acknowledged ? "under way" : "acked";
}

std::string changeText(const Json& change) {
    const auto table = tableFromText(stringIn(change, "table"));
    const std::string key = stringIn(change, "key");
    return fmt::format("{} {} unit {}{}", stringIn(change, "operation"),
                       table ? shortName(*table) : stringIn(change, "table"),
                       numberText(change, "unit"), key.empty() ? "" : " key " + key);
}

std::string toldText(const ToldChange& told) {
    if (told.supersededBy)
        return fmt::format("superseded by {}", *told.supersededBy);
    if (!told.differences.empty())
        return fmt::format("{}", fmt::join(told.differences, ", "));
    if (told.entry)
        return (told.before ? "as before: " : "") + entryText(told.entry->content);
    return told.before ? "was " + entryText(told.before->content) : std::string();
}

}  // namespace Inspect
