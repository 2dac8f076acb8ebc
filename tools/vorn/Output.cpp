// Terminals and pipes.
#include "tools/vorn/Output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>

namespace Vorn {

namespace {

constexpr std::size_t kDefaultWidth = 80;
constexpr std::size_t kGap = 2;
constexpr std::size_t kLeastFlexible = 8;

std::size_t terminalWidth() {
    const char* const columns = std::getenv("COLUMNS");
    const long wanted = columns == nullptr ? 0 : std::strtol(columns, nullptr, 10);
    if (wanted > 0 && wanted < 10000)
        return static_cast<std::size_t>(wanted);
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col
                                                                            : kDefaultWidth;
}

bool wantsColours(ColourMode mode) {
    if (mode != ColourMode::automatic)
        return mode == ColourMode::always;
    const char* const noColour = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) == 1 && (noColour == nullptr || *noColour == '\0');
}

std::string_view codeOf(Colour colour) {
    constexpr std::array<std::string_view, 6> kCodes{"", "2", "1", "31", "32", "33"};
    return kCodes.at(static_cast<std::size_t>(colour));
}

bool startsCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
}

std::string jsonLine(const Json& document) {
    return document.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

/// What painted() makes and line() lets through.
constexpr std::string_view kPaint = "\x1b[";
constexpr std::array<std::string_view, 6> kPaints{"0m", "1m", "2m", "31m", "32m", "33m"};

/// Bytes of our own colour code that the text begins with; 0 where it begins with something else.
std::size_t paintAt(std::string_view text) {
    if (!text.starts_with(kPaint))
        return 0;
    const std::string_view code = text.substr(kPaint.size());
    for (const std::string_view known : kPaints) {
        if (code.starts_with(known))
            return kPaint.size() + known.size();
    }
    return 0;
}

std::string shownButColours(std::string_view text) {
    std::string result;
    std::size_t begin = 0;
    for (std::size_t at = text.find(kPaint); at != std::string_view::npos;
         at = text.find(kPaint, at + 1)) {
        const std::size_t bytes = at < begin ? 0 : paintAt(text.substr(at));
        if (bytes == 0)
            continue;
        result += shown(text.substr(begin, at - begin));
        result += text.substr(at, bytes);
        begin = at + bytes;
    }
    return result + shown(text.substr(begin));
}

double now_s() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

Output::Output(ColourMode mode)
    : isTerminal_(isatty(STDOUT_FILENO) == 1),
      colours_(wantsColours(mode)),
      width_(terminalWidth()) {}

std::string Output::painted(Colour colour, std::string_view text) const {
    if (!colours_ || colour == Colour::none || text.empty())
        return shown(text);
    return fmt::format("\x1b[{}m{}\x1b[0m", codeOf(colour), shown(text));
}

void Output::line(std::string_view text) const {
    fmt::print("{}\n", colours_ ? shownButColours(text) : shown(text));
}
void Output::raw(std::string_view text) const {
    fmt::print("{}", text);
}
void Output::json(const Json& document) const {
    fmt::print("{}\n",
               document.dump(isTerminal_ ? 2 : -1, ' ', false, Json::error_handler_t::replace));
}
void Output::jsonFailure(const Json& failure) const {
    if (!isListOpen_)
        return raw(jsonLine(failure));
    raw("\n]," + jsonLine(failure).substr(1));
}
void Output::note(std::string_view text) const {
    std::fflush(stdout);
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string_view one = text.substr(begin, end - begin);
        fmt::print(stderr, "{}\n", colours_ ? shownButColours(one) : shown(one));
        begin = end + 1;
    }
}

std::size_t columnsOf(std::string_view text) {
    return static_cast<std::size_t>(std::ranges::count_if(text, startsCharacter));
}

std::string cutTo(std::string_view text, std::size_t columns) {
    if (columnsOf(text) <= columns)
        return std::string(text);
    std::size_t bytes = 0;
    for (std::size_t kept = 0; bytes < text.size(); ++bytes) {
        if (startsCharacter(text[bytes]) && ++kept == columns)
            break;
    }
    return std::string(text.substr(0, bytes)) + "…";
}

std::vector<std::string> wrapped(std::string_view text, std::size_t columns) {
    std::vector<std::string> lines;
    std::string line;
    while (!text.empty()) {
        const std::size_t space = std::min(text.find(' '), text.size());
        const std::string word = cutTo(text.substr(0, space), columns);
        text.remove_prefix(std::min(space + 1, text.size()));
        const bool fits = columnsOf(line) + 1 + columnsOf(word) <= columns;
        if (!line.empty() && !fits)
            lines.push_back(std::exchange(line, {}));
        line += (line.empty() ? "" : " ") + word;
    }
    lines.push_back(line);
    return lines;
}

std::vector<std::size_t> TextTable::naturalWidths() const {
    std::vector<std::size_t> widths;
    for (const Column& column : columns_)
        widths.push_back(columnsOf(column.name));
    for (const auto& row : rows_) {
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], columnsOf(row[i].text));
    }
    return widths;
}

std::string TextTable::fit(std::vector<std::size_t>& widths, std::size_t width) const {
    const auto total = [&] {
        std::size_t sum = 0;
        for (const std::size_t one : widths)
            sum += one == 0 ? 0 : one + kGap;
        return sum - kGap;
    };
    // The widest flexible column gives first, down to what can still be read.
    const auto cut = [&](std::size_t least) {
        while (total() > width) {
            std::size_t* widest = nullptr;
            for (std::size_t i = 0; i < widths.size(); ++i) {
                if (columns_[i].kind == Column::Kind::flexible && widths[i] > least &&
                    (widest == nullptr || widths[i] > *widest)) {
                    widest = &widths[i];
                }
            }
            if (widest == nullptr)
                return;
            --*widest;
        }
    };
    std::string leftOut;
    cut(3 * kLeastFlexible);
    for (std::size_t i = widths.size(); i-- > 0 && total() > width;) {
        if (columns_[i].kind != Column::Kind::optional)
            continue;
        widths[i] = 0;
        leftOut.insert(0, columns_[i].name + (leftOut.empty() ? "" : ", "));
    }
    cut(kLeastFlexible);
    return leftOut;
}

void TextTable::printRow(const std::vector<Cell>& row, const std::vector<std::size_t>& widths,
                         const Output& out) const {
    std::vector<std::vector<std::string>> cells;
    std::size_t lines = 1;
    for (std::size_t i = 0; i < row.size(); ++i) {
        cells.push_back(wrapped(row[i].text, widths[i]));
        if (widths[i] != 0)
            lines = std::max(lines, cells.back().size());
    }
    for (std::size_t number = 0; number < lines; ++number) {
        std::string line;
        std::string gap;  // written only when something comes behind it
        for (std::size_t i = 0; i < row.size(); ++i) {
            if (widths[i] == 0)
                continue;
            const std::string text = number < cells[i].size() ? cells[i][number] : std::string();
            const std::string padding(widths[i] - columnsOf(text), ' ');
            const bool isRight = columns_[i].kind == Column::Kind::right;
            if (text.empty()) {
                gap += padding + std::string(kGap, ' ');
                continue;
            }
            line += gap + (isRight ? padding : "") + out.painted(row[i].colour, text);
            gap = (isRight ? "" : padding) + std::string(kGap, ' ');
        }
        out.line(line);
    }
}

void TextTable::print(const Output& out) const {
    std::vector<std::size_t> widths = naturalWidths();
    const std::string leftOut = out.isTerminal() ? fit(widths, out.width()) : std::string();
    std::vector<Cell> head;
    for (const Column& column : columns_)
        head.emplace_back(column.name, Colour::bold);
    printRow(head, widths, out);
    for (const auto& row : rows_)
        printRow(row, widths, out);
    if (!leftOut.empty()) {
        out.line(out.painted(
            Colour::dim,
            fmt::format("(no room for {}: use a wider terminal, a pipe or --json)", leftOut)));
    }
}

JsonList::JsonList(const Output& out, std::string_view source, std::string_view name) : out_(out) {
    out_.isListOpen_ = true;
    out_.raw(fmt::format("{{\"source\":\"{}\",\"{}\":[", source, name));
}
void JsonList::add(const Json& element) {
    out_.raw(isFirst_ ? "\n" : ",\n");
    out_.raw(element.dump(-1, ' ', false, Json::error_handler_t::replace));
    isFirst_ = false;
}
void JsonList::end(const Json& members) {
    out_.raw(isFirst_ ? "]" : "\n]");
    for (const auto& [name, value] : members.items())
        out_.raw(fmt::format(",\"{}\":{}", name,
                             value.dump(-1, ' ', false, Json::error_handler_t::replace)));
    out_.raw("}\n");
    out_.isListOpen_ = false;
}

ProgressLine::ProgressLine(bool wanted)
    : isShown_(wanted && isatty(STDERR_FILENO) == 1), began_s_(now_s()) {}

ProgressLine::~ProgressLine() {
    if (last_s_ != 0)
        fmt::print(stderr, "\r\x1b[K");
}

void ProgressLine::show(std::string_view what, std::uint64_t done, std::uint64_t total) {
    constexpr double kRefresh_s = 0.1;
    const double now = now_s();
    if (!isShown_ || now - last_s_ < kRefresh_s)
        return;
    last_s_ = now;
    const double spent_s = now - began_s_;
    std::string text = fmt::format("{}: {}", what, done);
    if (total != 0)
        text += fmt::format(" of {}", total);
    if (spent_s > 1 && done != 0) {
        const double rate = static_cast<double>(done) / spent_s;
        text += fmt::format(", {:.0f}/s", rate);
        if (total > done)
            text += fmt::format(", {:.0f} s left", static_cast<double>(total - done) / rate);
    }
    fmt::print(stderr, "\r\x1b[K{}", text);
    std::fflush(stderr);
}

}  // namespace Vorn
