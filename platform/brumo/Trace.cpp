#include "platform/brumo/Trace.h"

#include <fnmatch.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/brumo/StandardError.h"

namespace Brumo {

namespace {

constexpr int kHighestLevel = 9;
constexpr const char* kDefaultFilter = "*/1-2";

struct FilterRule {
    std::string glob;
    std::uint32_t levels;
};

[[noreturn]] void rejectFilter(std::string_view rule) {
    throw std::invalid_argument(
        fmt::format("trace filter \"{}\": expected HANDLE-GLOB/LEVELS, for example */1-3,8", rule));
}

int parseLevel(std::string_view text, std::string_view rule) {
    int level = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), level);
    if (error != std::errc{} || end != text.data() + text.size() || level < 0 ||
        level > kHighestLevel) {
        rejectFilter(rule);
    }
    return level;
}

std::uint32_t parseLevels(std::string_view text, std::string_view rule) {
    std::uint32_t levels = 0;
    while (!text.empty()) {
        const auto comma = text.find(',');
        const std::string_view range = text.substr(0, comma);
        text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
        const auto dash = range.find('-');
        const int first = parseLevel(range.substr(0, dash), rule);
        const int last =
            dash == std::string_view::npos ? first : parseLevel(range.substr(dash + 1), rule);
        if (first > last)
            rejectFilter(rule);
        for (int level = first; level <= last; ++level)
            levels |= 1U << level;
    }
    return levels;
}

std::vector<FilterRule> parseFilter(std::string_view text) {
    std::vector<FilterRule> rules;
    while (!text.empty()) {
        const auto semicolon = text.find(';');
        const std::string_view rule = text.substr(0, semicolon);
        text =
            semicolon == std::string_view::npos ? std::string_view{} : text.substr(semicolon + 1);
        const auto slash = rule.rfind('/');
        if (slash == std::string_view::npos || slash == 0)
            rejectFilter(rule);
        rules.push_back(
            {std::string(rule.substr(0, slash)), parseLevels(rule.substr(slash + 1), rule)});
    }
    return rules;
}

/// All handles and the filter that gives them their levels. Handles may be made by static
/// initialisers, so this exists from the first use on.
class Registry {
public:
    static Registry& instance() {
        static Registry registry;
        return registry;
    }

    TraceHandle& handle(std::string_view name) {
        const std::lock_guard guard(mutex_);
        auto& slot = handles_[std::string(name)];
        if (!slot) {
            slot = std::make_unique<TraceHandle>(std::string(name));
            slot->levelsIs(levelsOf(slot->name()));
        }
        return *slot;
    }

    void filterIs(const std::string& text) {
        std::vector<FilterRule> rules = parseFilter(text);
        const std::lock_guard guard(mutex_);
        rules_ = std::move(rules);
        filter_ = text;
        for (auto& [name, handle] : handles_)
            handle->levelsIs(levelsOf(name));
    }

    std::string filter() const {
        const std::lock_guard guard(mutex_);
        return filter_;
    }

    std::vector<std::string> names() const {
        const std::lock_guard guard(mutex_);
        std::vector<std::string> result;
        for (const auto& entry : handles_)
            result.push_back(entry.first);
        return result;
    }

    TraceSink sink = standardErrorTraceSink();

private:
    Registry() {
        const char* environment = std::getenv("VORN_TRACE");
        filter_ = environment != nullptr ? environment : kDefaultFilter;
        try {
            rules_ = parseFilter(filter_);
        } catch (const std::invalid_argument& error) {
            writeToStandardError(Priority::warning,
                                 fmt::format("VORN_TRACE ignored: {}", error.what()));
            filter_ = kDefaultFilter;
            rules_ = parseFilter(filter_);
        }
    }

    std::uint32_t levelsOf(const std::string& name) const {
        std::uint32_t levels = 0;
        for (const FilterRule& rule : rules_) {
            if (fnmatch(rule.glob.c_str(), name.c_str(), 0) == 0)
                levels = rule.levels;
        }
        return levels;
    }

    mutable std::mutex mutex_;
    std::map<std::string, std::unique_ptr<TraceHandle>> handles_;
    std::string filter_;
    std::vector<FilterRule> rules_;
};

std::string lineOf(const TraceRecord& record) {
    return fmt::format("{} {} {}::{}:{}{}", record.level, record.handle, record.className,
                       record.function, record.text.starts_with(' ') ? "" : " ", record.text);
}

/// Failures are somebody's concern; beyond the ends of operations it is for those who look for a
/// mistake.
Priority priorityOf(int level) {
    if (level == 1)
        return Priority::warning;
    return level == 2 ? Priority::info : Priority::debug;
}

}  // namespace

TraceHandle& TraceHandle::named(std::string_view name) {
    return Registry::instance().handle(name);
}

void TraceSource::emit(int level, const char* function, fmt::string_view text,
                       fmt::format_args args) const {
    const std::string line = fmt::vformat(text, args);
    const TraceSink& sink = Registry::instance().sink;
    // A template's instance names its arguments, too; readers know it by its bare name.
    std::string_view name = function;
    name = name.substr(0, name.find('<'));
    if (sink)
        sink({level, handle_->name(), className_, name, line});
}

TraceSink traceSinkIs(TraceSink sink) {
    return std::exchange(Registry::instance().sink, std::move(sink));
}

TraceSink standardErrorTraceSink() {
    return [](const TraceRecord& record) {
        writeToStandardError(priorityOf(record.level), lineOf(record));
    };
}

TraceSink fileTraceSink(const std::string& path) {
    std::shared_ptr<std::FILE> file(std::fopen(path.c_str(), "ae"), [](std::FILE* open) {
        if (open != nullptr)
            std::fclose(open);
    });
    if (!file)
        throw std::system_error(errno, std::generic_category(), "open trace file " + path);
    std::setvbuf(file.get(), nullptr, _IOLBF, 0);
    return [file](const TraceRecord& record) {
        const std::string line = lineOf(record) + "\n";
        std::fwrite(line.data(), 1, line.size(), file.get());
    };
}

void traceFilterIs(const std::string& filter) {
    Registry::instance().filterIs(filter);
}

std::string traceFilter() {
    return Registry::instance().filter();
}

std::vector<std::string> traceHandleNames() {
    return Registry::instance().names();
}

}  // namespace Brumo
