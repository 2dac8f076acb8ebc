// Why something cannot be told, as exceptions that name the reason in one line.
//
// Whoever shows the line decides what becomes of it; the kinds are what a caller tells apart.
#pragma once

#include <stdexcept>

namespace Inspect {

/// The state directory is missing, holds no tables, or tables of another layout.
class StateDirectoryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Needs a process that does not run.
class NotRunningError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A process has answered that it does not do it.
class RefusedError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What was asked for cannot be meant: no such table, key or field, or more than one.
class QuestionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace Inspect
