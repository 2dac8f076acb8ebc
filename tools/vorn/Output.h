// Where text goes: colours and widths for terminals, plain and whole for pipes.
//
// One thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/Text.h"

namespace Vorn {

using Inspect::Json;
using Inspect::shown;

enum class Colour : std::uint8_t { none, dim, bold, red, green, yellow };
enum class ColourMode : std::uint8_t { automatic, always, never };

class Output {
public:
    explicit Output(ColourMode mode);

    bool isTerminal() const { return isTerminal_; }
    /// In columns: COLUMNS, else the terminal's, else 80.
    std::size_t width() const { return width_; }
    std::string painted(Colour colour, std::string_view text) const;

    /// To stdout, control characters replaced but for colours; a pipe that nobody reads any more
    /// ends the process, as everywhere.
    void line(std::string_view text = {}) const;
    /// As it is.
    void raw(std::string_view text) const;
    /// One JSON document.
    void json(const Json& document) const;
    /// Ends the process's output with the failure as JSON: a document of its own, or the end of a
    /// list that was begun.
    void jsonFailure(const Json& failure) const;
    /// To stderr, for people.
    void note(std::string_view text) const;

private:
    bool isTerminal_;
    bool colours_;
    std::size_t width_;
    mutable bool isListOpen_ = false;
    friend class JsonList;
};

/// Columns that text takes on a terminal, each character as one.
std::size_t columnsOf(std::string_view text);
/// Cut to that many columns, the last being "…".
std::string cutTo(std::string_view text, std::size_t columns);

/// Lines of at most so many columns, broken between words; a longer word is cut.
std::vector<std::string> wrapped(std::string_view text, std::size_t columns);

/// Rows of cells in columns. What does not fit a terminal's width goes on in the next line, or is
/// left out with a note; a pipe gets everything in one line a row.
class TextTable {
public:
    struct Column {
        std::string name;
        enum class Kind : std::uint8_t { left, right, flexible, optional } kind = Kind::left;
    };
    struct Cell {
        Cell() = default;
        Cell(std::string t, Colour c = Colour::none) : text(std::move(t)), colour(c) {}
        Cell(const char* t) : text(t) {}
        Cell(std::string_view t) : text(t) {}
        Cell(std::uint64_t number) : text(std::to_string(number)) {}

        std::string text;
        Colour colour = Colour::none;
    };

    /// Flexible columns are wrapped, optional ones left out from the right, where room is short.
    explicit TextTable(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
    bool empty() const { return rows_.empty(); }
    void print(const Output& out) const;

private:
    std::vector<std::size_t> naturalWidths() const;
    void printRow(const std::vector<Cell>& row, const std::vector<std::size_t>& widths,
                  const Output& out) const;
    /// Columns left out get width 0; returns their names.
    std::string fit(std::vector<std::size_t>& widths, std::size_t width) const;

    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

using Kind = TextTable::Column::Kind;

/// A JSON document with one list that is written as it comes: {"source":..., "NAME":[...], ...}.
class JsonList {
public:
    JsonList(const Output& out, std::string_view source, std::string_view name);
    void add(const Json& element);
    /// Ends the list and adds further members.
    void end(const Json& members);

private:
    const Output& out_;
    bool isFirst_ = true;
};

/// Count, rate and time left of long work, on stderr where that is a terminal.
class ProgressLine {
public:
    explicit ProgressLine(bool wanted);
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    /// Clears the line.
    ~ProgressLine();

    void show(std::string_view what, std::uint64_t done, std::uint64_t total);

private:
    bool isShown_;
    double began_s_;
    double last_s_ = 0;
};

}  // namespace Vorn
