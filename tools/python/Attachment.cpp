// The attached directory, and damages that are told once.
#include "tools/python/Attachment.h"

#include <algorithm>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/Find.h"
#include "tools/python/Errors.h"

namespace Python {

Attachment::Attachment(const std::string& root)
    : root_(root), system_(std::make_shared<Inspect::System>(root)) {}

std::shared_ptr<Inspect::System> Attachment::system() const {
    if (!system_)
        throw Inspect::QuestionError(fmt::format("{}: was closed", root_));
    return system_;
}

void Attachment::Met::remember(const Inspect::Damage& damage) {
    auto& known = attachment_.damages_;
    if (std::ranges::find(known, damage) == known.end())
        known.push_back(damage);
}

Attachment::Met::~Met() {
    for (const Inspect::Damage& damage : met_)
        remember(damage);
}

void Attachment::Met::warn() {
    for (const Inspect::Damage& damage : std::exchange(met_, {})) {
        remember(damage);
        warnOf(damage);
    }
}

std::optional<std::uint16_t> unitIn(const Inspect::State& state, const py::object& number) {
    if (number.is_none())
        return std::nullopt;
    const auto wide = py::cast<std::int64_t>(number);
    if (wide < 0 || wide > UINT16_MAX)
        throw Inspect::QuestionError(fmt::format("{} is no unit", wide));
    const auto unit = static_cast<std::uint16_t>(wide);
    requireUnit(state, unit);
    return unit;
}

}  // namespace Python
