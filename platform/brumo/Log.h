// Log messages: defined records with an identifier that operators act on, distinct from traces.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace Brumo {

/// A message definition. `format` has at most one `%s`.
struct LogMessage {
    std::string_view identifier;
    std::string_view format;
    std::string_view explanation;
    std::string_view recommendedAction;
    int severity;
};

/// A registered message; made at load time, one for each source unit that emits it.
class LogHandle {
public:
    explicit LogHandle(LogMessage message) : message_(message) {}

    const LogMessage& message() const { return message_; }
    /// Emits the message with its placeholder replaced.
    void emit(std::string_view argument) const;

private:
    LogMessage message_;
};

using LogSink = std::function<void(const LogMessage&, std::string_view text)>;

/// Replaces the sink and returns the one before. The default writes
/// "SEVERITY IDENTIFIER: TEXT" to standard error.
LogSink logSinkIs(LogSink sink);

}  // namespace Brumo
