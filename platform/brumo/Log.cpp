#include "platform/brumo/Log.h"

#include <cstdio>
#include <utility>

namespace Brumo {

namespace {

void writeToStandardError(const LogMessage& message, std::string_view text) {
    std::fprintf(stderr, "%d %.*s: %.*s\n", message.severity,
                 static_cast<int>(message.identifier.size()), message.identifier.data(),
                 static_cast<int>(text.size()), text.data());
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
