#include "platform/brumo/Log.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "platform/brumo/StandardError.h"

namespace Brumo {

namespace {

void writeToStandardError(const LogMessage& message, std::string_view text) {
    const int priority = std::clamp(message.severity, static_cast<int>(Priority::critical),
                                    static_cast<int>(Priority::debug));
    Brumo::writeToStandardError(
        Priority{priority}, fmt::format("{} {}: {}", message.severity, message.identifier, text));
}

LogSink& sink() {
    static LogSink current = writeToStandardError;
    return current;
}

}  // namespace

void LogHandle::emit(std::string_view argument) const {
    std::string text(message_.format);
    if (const auto placeholder = text.find("%s"); placeholder != std::string::npos) {
        text.replace(placeholder, 2, argument);
    }
    sink()(message_, text);
}

LogSink logSinkIs(LogSink next) {
    return std::exchange(sink(), std::move(next));
}

}  // namespace Brumo
