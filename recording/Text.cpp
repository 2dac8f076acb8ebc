#include "recording/Text.h"

#include <algorithm>
#include <array>
#include <functional>
#include <map>

#include <fmt/format.h>

#include "recording/EntryText.h"
#include "recording/Names.h"
#include "recording/PackedEntry.h"

namespace Recording {

namespace {

constexpr std::array<std::string_view, 3> kLogs{"none", "this", "another"};

/// Bytes of a file in a line.
constexpr std::size_t kBytesInLine = 64;

std::string rowsText(const std::vector<Look::Row>& rows) {
    std::string text;
    for (const Look::Row& row : rows)
        text += fmt::format(" {}={}", tableName(row.table), row.version);
    return text;
}

struct TextMaker {
    std::string operator()(const Start& start) const {
        std::string text = fmt::format("start units={} counters={} policers={}",
                                       fmt::join(start.units, ","), start.counters, start.policers);
        if (start.capacity != 0)
            text += fmt::format(" capacity={}", start.capacity);
        if (start.onOwnFiles)
            text += " on-own-files";
        if (start.time_ns != 0)
            text += fmt::format(" time={}", start.time_ns);
        return text + '\n';
    }
    std::string operator()(const File& file) const {
        std::string text = "file " + wordText("path", file.path).substr(5);
        text += fmt::format(" size={}\n", file.size);
        for (const Run& run : file.runs) {
            for (std::size_t at = 0; at < run.bytes.size(); at += kBytesInLine) {
                const std::size_t size = std::min(kBytesInLine, run.bytes.size() - at);
                text +=
                    fmt::format("  {} {}\n", run.offset + at, hexText(run.bytes.subspan(at, size)));
            }
        }
        return text;
    }
    std::string operator()(const Mounted& mounted) const {
        return fmt::format("= mounted{}\n", rowsText(mounted.versions));
    }
    std::string operator()(const Change& change) const {
        std::string text = fmt::format("{} #{} {} {}", operationName(change.operation),
                                       change.number, tableName(change.table), change.unit);
        if (change.operation != Change::Operation::removeAll)
            text += ' ' + keyName(change.table, change.key);
        if (change.operation == Change::Operation::write)
            text += entryText(change.table, change.key, unpackedEntry(change.entry));
        if (change.dependency == Change::kForeign) {
            text += " after=#foreign";
        } else if (change.dependency != 0) {
            text += fmt::format(" after=#{}", change.dependency);
        }
        return text + (change.hasHandler ? " handler\n" : "\n");
    }
    std::string operator()(const Turn& /*turn*/) const { return "turn\n"; }
    std::string operator()(const Look& look) const {
        std::string text = fmt::format("look map={} log={}", look.map,
                                       kLogs.at(static_cast<std::size_t>(look.log)));
        if (look.consumed != 0)
            text += fmt::format(" consumed={}", look.consumed);
        if (look.pauseRequested)
            text += " pause";
        if (look.call != 0)
            text += fmt::format(" call={}", look.call);
        if (!look.isWhole)
            text += " moved";
        return text + rowsText(look.rows) + '\n';
    }
    std::string operator()(const ResourceOperation& made) const {
        std::string text =
            fmt::format("{} {}", operationName(made.operation), tableName(made.table));
        if (made.operation != ResourceOperation::Operation::sweep)
            text += ' ' + keyName(made.table, made.key);
        return text + '\n';
    }
    std::string operator()(const End& /*end*/) const { return "end\n"; }
    std::string operator()(const OwnChange& own) const {
        return fmt::format("= own #{} {} {}\n", own.number, tableName(own.table),
                           own.key.empty() ? "?" : own.key);
    }
    std::string operator()(const State& state) const {
        std::string text = fmt::format("= #{} {}", state.number, stateName(state.state));
        if (state.version != 0)
            text += fmt::format(" version={}", state.version);
        return text + '\n';
    }
    std::string operator()(const Handler& handler) const {
        return handler.runs ? fmt::format("answer #{} {{\n", handler.number)
                            : fmt::format("}} #{}\n", handler.number);
    }
    std::string operator()(const Note& note) const {
        return note.text.empty() ? "#\n" : fmt::format("# {}\n", note.text);
    }
    std::string operator()(const ResourceState& state) const {
        std::string text = fmt::format("= {} {} {}", tableName(state.table),
                                       keyName(state.table, state.key), stateName(state.state));
        if (state.updateVersion != 0)
            text += fmt::format(" update={}", state.updateVersion);
        if (state.index)
            text += fmt::format(" index={}", *state.index);
        return text + '\n';
    }
};

/// The words of a line, taken one after the other.
class Line {
public:
    explicit Line(std::string_view text) : words_(wordsOf(text)) {}

    bool atEnd() const { return next_ == words_.size(); }
    /// The next word that has no value. Throws FormatError.
    const std::string& word(std::string_view what) {
        if (atEnd() || words_[next_].hasValue)
            throw FormatError(fmt::format("{} is missing", what));
        return words_[next_++].name;
    }
    /// "#N"
    std::uint64_t number() { return numberOf(word("a number such as #1")); }
    static std::uint64_t numberOf(std::string_view text) {
        if (!text.starts_with('#'))
            throw FormatError(fmt::format("'{}' is no number such as #1", text));
        return numberIn(text.substr(1), kMostChanges);
    }
    std::uint32_t table() { return tableOf(word("a table")); }
    static std::uint32_t tableOf(std::string_view name) {
        const auto table = tableOfName(name);
        if (!table)
            throw FormatError(fmt::format("no table '{}'", name));
        return *table;
    }
    std::uint64_t key(std::uint32_t table) {
        const std::string& text = word("a key");
        const auto key = keyOfName(table, text);
        if (!key)
            throw FormatError(fmt::format("'{}' is no key of {}", text, tableName(table)));
        return *key;
    }
    /// The words that are left.
    std::vector<Word> rest() { return {words_.begin() + static_cast<long>(next_), words_.end()}; }
    /// Throws FormatError where anything is left.
    void end() const {
        if (!atEnd())
            throw FormatError(fmt::format("'{}' is too much", words_[next_].name));
    }

private:
    std::vector<Word> words_;
    std::size_t next_ = 0;
};

/// The place of a text in a list. Throws FormatError.
template <class Enum, std::size_t Size>
Enum placeOf(const std::array<std::string_view, Size>& list, std::string_view text) {
    const auto* const found = std::ranges::find(list, text);
    if (found == list.end())
        throw FormatError(fmt::format("'{}' is none of {}", text, fmt::join(list, ", ")));
    return static_cast<Enum>(found - list.begin());
}

[[noreturn]] void refuse(const Word& word) {
    throw FormatError(fmt::format("'{}' is not known here", word.name));
}

class Reader {
public:
    Contents read(std::string_view text) {
        std::size_t number = 0;
        while (!text.empty()) {
            ++number;
            const std::size_t end = std::min(text.find('\n'), text.size());
            try {
                line(text.substr(0, end));
            } catch (const FormatError& error) {
                throw FormatError(fmt::format("line {}: {}", number, error.what()));
            }
            text.remove_prefix(std::min(end + 1, text.size()));
        }
        endFile();
        return std::move(contents_);
    }

private:
    template <class Kind>
    void add(const Kind& event) {
        encode(event, buffer_);
        static_cast<void>(decode(buffer_.bytes()));  // refuses what no recording has
        contents_.add(buffer_.bytes(), time_);
    }

    void line(std::string_view text) {
        const std::size_t begin = text.find_first_not_of(" \t\r");
        if (begin == std::string_view::npos)
            return;
        if (text[begin] == '#') {
            endFile();
            const std::string_view said = text.substr(begin + 1);
            add(Note{said.starts_with(' ') ? said.substr(1) : said});
            return;
        }
        if (begin != 0 && filePath_) {
            Line part(text);
            partOfFile(part);
            return;
        }
        endFile();
        Line words(text);
        const std::string kind = words.word("a command");
        const auto known = commands().find(kind);
        if (known == commands().end())
            throw FormatError(fmt::format("no command '{}'", kind));
        known->second(*this, words);
    }

    using Command = std::function<void(Reader&, Line&)>;
    static const std::map<std::string, Command, std::less<>>& commands() {
        static const std::map<std::string, Command, std::less<>> all{
            {"start", [](Reader& reader, Line& words) { reader.start(words); }},
            {"file", [](Reader& reader, Line& words) { reader.file(words); }},
            {"write", changing(Change::Operation::write)},
            {"remove", changing(Change::Operation::remove)},
            {"remove-all", changing(Change::Operation::removeAll)},
            {"turn", plain<Turn>()},
            {"end", plain<End>()},
            {"look", [](Reader& reader, Line& words) { reader.look(words); }},
            {"move", operating(ResourceOperation::Operation::move)},
            {"fail", operating(ResourceOperation::Operation::fail)},
            {"restore", operating(ResourceOperation::Operation::restore)},
            {"sweep", operating(ResourceOperation::Operation::sweep)},
            {"@", [](Reader& reader, Line& words) { reader.timeIs(words); }},
            {"=", [](Reader& reader, Line& words) { reader.output(words); }},
            {"answer", [](Reader& reader, Line& words) { reader.answer(words); }},
            {"}", [](Reader& reader, Line& words) { reader.answerEnds(words); }}};
        return all;
    }
    static Command changing(Change::Operation operation) {
        return [operation](Reader& reader, Line& words) { reader.change(operation, words); };
    }
    static Command operating(ResourceOperation::Operation operation) {
        return [operation](Reader& reader, Line& words) { reader.operate(operation, words); };
    }
    template <class Kind>
    static Command plain() {
        return [](Reader& reader, Line& words) {
            words.end();
            reader.add(Kind{});
        };
    }

    void start(Line& words) {
        Start start;
        for (const Word& word : words.rest()) {
            if (word.name == "units") {
                std::string_view units = word.value;
                while (!units.empty()) {
                    const std::size_t end = std::min(units.find(','), units.size());
                    start.units.push_back(
                        static_cast<std::uint16_t>(numberIn(units.substr(0, end), 0xFFFF)));
                    units.remove_prefix(std::min(end + 1, units.size()));
                }
            } else if (word.name == "counters") {
                start.counters = static_cast<std::uint32_t>(numberIn(word.value, 0xFFFFFFFF));
            } else if (word.name == "policers") {
                start.policers = static_cast<std::uint32_t>(numberIn(word.value, 0xFFFFFFFF));
            } else if (word.name == "capacity") {
                start.capacity = numberIn(word.value);
            } else if (word.name == "time") {
                start.time_ns = numberIn(word.value);
            } else if (word.name == "on-own-files" && !word.hasValue) {
                start.onOwnFiles = true;
            } else {
                refuse(word);
            }
        }
        time_ = {};
        open_.clear();  // what the process before was in the middle of has no end
        add(start);
    }

    void file(Line& words) {
        filePath_ = words.word("a path");
        for (const Word& word : words.rest()) {
            if (word.name != "size")
                refuse(word);
            file_.size = numberIn(word.value);
        }
    }
    void partOfFile(Line& words) {
        const std::uint64_t offset = numberIn(words.word("an offset"));
        parts_.emplace_back(offset, bytesOfHex(words.word("bytes")));
        words.end();
    }
    /// Parts that follow each other are one.
    void endFile() {
        if (!filePath_)
            return;
        std::vector<std::pair<std::uint64_t, std::vector<std::byte>>> joined;
        for (auto& [offset, bytes] : parts_) {
            if (!joined.empty() && joined.back().first + joined.back().second.size() == offset) {
                joined.back().second.insert(joined.back().second.end(), bytes.begin(), bytes.end());
            } else {
                joined.emplace_back(offset, std::move(bytes));
            }
        }
        file_.path = *filePath_;
        for (const auto& [offset, bytes] : joined)
            file_.runs.push_back({offset, bytes});
        add(file_);
        filePath_.reset();
        parts_.clear();
        file_ = {};
    }

    void change(Change::Operation operation, Line& words) {
        Change change;
        change.operation = operation;
        change.number = words.number();
        change.table = words.table();
        change.unit = static_cast<std::uint16_t>(numberIn(words.word("a unit"), 0xFFFF));
        if (operation != Change::Operation::removeAll)
            change.key = words.key(change.table);
        std::vector<Word> fields;
        for (Word& word : words.rest()) {
            if (word.name == "after") {
                change.dependency =
                    word.value == "#foreign" ? Change::kForeign : Line::numberOf(word.value);
            } else if (word.name == "handler" && !word.hasValue) {
                change.hasHandler = true;
            } else if (operation == Change::Operation::write) {
                fields.push_back(std::move(word));
            } else {
                refuse(word);
            }
        }
        if (operation != Change::Operation::write)
            return add(change);
        const PackedEntry entry(entryImage(change.table, change.key, fields));
        change.entry = entry.bytes();
        add(change);
    }

    static std::vector<Look::Row> rowsOf(const std::vector<Word>& words) {
        std::vector<Look::Row> rows;
        rows.reserve(words.size());
        for (const Word& word : words)
            rows.push_back({Line::tableOf(word.name), numberIn(word.value)});
        return rows;
    }

    void look(Line& words) {
        Look look;
        std::vector<Word> rows;
        for (Word& word : words.rest()) {
            if (word.name == "map") {
                look.map = static_cast<std::uint32_t>(numberIn(word.value, 0xFFFFFFFF));
            } else if (word.name == "log") {
                look.log = placeOf<Look::Log>(kLogs, word.value);
            } else if (word.name == "consumed") {
                look.consumed = numberIn(word.value);
            } else if (word.name == "pause" && !word.hasValue) {
                look.pauseRequested = true;
            } else if (word.name == "call") {
                look.call = static_cast<std::uint32_t>(numberIn(word.value, 0xFFFFFFFF));
            } else if (word.name == "moved" && !word.hasValue) {
                look.isWhole = false;
            } else {
                rows.push_back(std::move(word));
            }
        }
        look.rows = rowsOf(rows);
        std::ranges::sort(look.rows, {}, &Look::Row::table);
        add(look);
    }

    void operate(ResourceOperation::Operation operation, Line& words) {
        ResourceOperation made{.operation = operation, .table = words.table(), .key = 0};
        if (operation != ResourceOperation::Operation::sweep)
            made.key = words.key(made.table);
        words.end();
        add(made);
    }

    void timeIs(Line& words) {
        const std::string& text = words.word("seconds");
        const std::size_t point = std::min(text.find('.'), text.size());
        std::string fraction = text.substr(std::min(point + 1, text.size()));
        if (fraction.size() > 9)
            throw FormatError("a time is of nanoseconds at the least");
        fraction.append(9 - fraction.size(), '0');
        constexpr std::uint64_t kMostSeconds = 9'000'000'000;
        time_ = std::chrono::seconds(numberIn(text.substr(0, point), kMostSeconds)) +
                std::chrono::nanoseconds(numberIn(fraction));
        words.end();
    }

    void output(Line& words) {
        const std::string what = words.word("what came out");
        if (what == "mounted") {
            add(Mounted{rowsOf(words.rest())});
        } else if (what == "own") {
            OwnChange own{.number = words.number(), .table = words.table(), .key = {}};
            const std::string key = words.word("a key");
            own.key = key == "?" ? std::string_view() : std::string_view(key);
            words.end();
            add(own);
        } else if (what.starts_with('#')) {
            State state{.number = Line::numberOf(what), .state = stateIn(words), .version = 0};
            for (const Word& word : words.rest()) {
                if (word.name != "version")
                    refuse(word);
                state.version = numberIn(word.value);
            }
            add(state);
        } else {
            resourceState(Line::tableOf(what), words);
        }
    }
    static std::uint8_t stateIn(Line& words) {
        const std::string& name = words.word("a state");
        const auto state = stateOfName(name);
        if (!state)
            throw FormatError(fmt::format("no state '{}'", name));
        return *state;
    }
    void resourceState(std::uint32_t table, Line& words) {
        ResourceState state;
        state.table = table;
        state.key = words.key(table);
        state.state = stateIn(words);
        for (const Word& word : words.rest()) {
            const auto number = static_cast<std::uint32_t>(numberIn(word.value, 0xFFFFFFFF));
            if (word.name == "update") {
                state.updateVersion = number;
            } else if (word.name == "index") {
                state.index = number;
            } else {
                refuse(word);
            }
        }
        add(state);
    }

    void answer(Line& words) {
        open_.push_back(words.number());
        if (words.word("{") != "{")
            throw FormatError("an answer begins with {");
        words.end();
        add(Handler{open_.back(), true});
    }
    void answerEnds(Line& words) {
        if (open_.empty())
            throw FormatError("no answer ends here");
        if (!words.atEnd() && words.number() != open_.back())
            throw FormatError(fmt::format("answer #{} has to end first", open_.back()));
        words.end();
        add(Handler{open_.back(), false});
        open_.pop_back();
    }

    Contents contents_;
    Buffer buffer_;
    std::chrono::nanoseconds time_{0};
    std::optional<std::string> filePath_;
    File file_;
    std::vector<std::pair<std::uint64_t, std::vector<std::byte>>> parts_;
    std::vector<std::uint64_t> open_;  ///< answers that have not ended
};

std::string timeText(std::chrono::nanoseconds time) {
    constexpr std::int64_t kSecond = 1'000'000'000;
    std::string text = fmt::format("@ {}.{:09}", time.count() / kSecond, time.count() % kSecond);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.ends_with('.'))
        text.pop_back();
    return text + '\n';
}

}  // namespace

std::string textOf(const Event& event) {
    return std::visit(TextMaker{}, event);
}

std::string firstLineOf(const Event& event) {
    std::string text = textOf(event);
    text.erase(text.find('\n'));
    return text;
}

std::string textOf(const Contents& contents) {
    std::string text;
    std::size_t depth = 0;
    std::chrono::nanoseconds time{0};
    for (const Recorded& recorded : contents.events()) {
        const Event event = decode(recorded.bytes);
        const auto* const handler = std::get_if<Handler>(&event);
        if (handler != nullptr && !handler->runs && depth > 0)
            --depth;
        if (is<Start>(event)) {
            time = {};
            depth = 0;  // a kill ends answers as well
        } else if (recorded.time != time) {
            time = recorded.time;
            text += std::string(depth * 2, ' ') + timeText(time);
        }
        text += std::string(depth * 2, ' ') + textOf(event);
        if (handler != nullptr && handler->runs)
            ++depth;
    }
    return text;
}

Contents contentsOfText(std::string_view text) {
    return Reader().read(text);
}

}  // namespace Recording
