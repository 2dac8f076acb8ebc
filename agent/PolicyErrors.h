// What is wrong with a policy file: every finding with the place where it stands.
//
// Plain values: any thread.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// Where something stands in a file; both count from 1. Line 0: the file as a whole.
struct Position {
    int line = 0;
    int column = 0;

    bool operator==(const Position&) const = default;
};

/// A policy that cannot be used. what() is one line a finding: "FILE:LINE:COLUMN: expected ...".
class PolicyError : public std::runtime_error {
public:
    explicit PolicyError(std::vector<std::string> lines);

    const std::vector<std::string>& lines() const { return lines_; }

private:
    std::vector<std::string> lines_;
};

/// Collects the findings of one file; what follows after the twentieth is only counted.
class PolicyErrors {
public:
    static constexpr std::size_t kLimit = 20;

    explicit PolicyErrors(std::string file) : file_(std::move(file)) {}

    /// `text` begins with "expected".
    void add(const Position& at, std::string_view text);

    const std::string& file() const { return file_; }
    std::size_t count() const { return count_; }
    /// Throws PolicyError when something was found; the lines are in the order of the file.
    void throwIfAny() const;

private:
    struct Finding {
        Position at;
        std::string text;
    };

    std::string file_;
    std::vector<Finding> findings_;
    std::size_t count_ = 0;
};

}  // namespace Agent
