#include "agent/PolicyErrors.h"

#include <algorithm>

#include <fmt/format.h>

namespace Agent {

namespace {

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        if (!text.empty())
            text += '\n';
        text += line;
    }
    return text;
}

}  // namespace

PolicyError::PolicyError(std::vector<std::string> lines)
    : std::runtime_error(joined(lines)), lines_(std::move(lines)) {}

void PolicyErrors::add(const Position& at, std::string_view text) {
    for (const Finding& finding : findings_) {
        if (finding.at == at && finding.text == text)  // a variable that is used twice
            return;
    }
    ++count_;
    if (findings_.size() < kLimit)
        findings_.push_back({at, std::string(text)});
}

void PolicyErrors::throwIfAny() const {
    if (count_ == 0)
        return;
    std::vector<Finding> sorted = findings_;
    std::stable_sort(sorted.begin(), sorted.end(), [](const Finding& a, const Finding& b) {
        return a.at.line != b.at.line ? a.at.line < b.at.line : a.at.column < b.at.column;
    });
    std::vector<std::string> lines;
    lines.reserve(sorted.size() + 1);
    for (const Finding& finding : sorted) {
        lines.push_back(finding.at.line == 0 ? fmt::format("{}: {}", file_, finding.text)
                                             : fmt::format("{}:{}:{}: {}", file_, finding.at.line,
                                                           finding.at.column, finding.text));
    }
    if (count_ > findings_.size())
        lines.push_back(fmt::format("{}: and {} more", file_, count_ - findings_.size()));
    throw PolicyError(std::move(lines));
}

}  // namespace Agent
