// Kills of a process within an operation, cheap enough to be met often.
//
// A child does the operation on the files that it shares with its parent, and ends itself before a
// store that was chosen by number. Stores are met by protection: the mappings are read-only, each
// store into them faults, is let through by itself, and is counted. What the child leaves in the
// files is what a killed process would leave; its memory is gone, and the parent's is of before.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace Simulator {

/// Files below a folder, by the process that writes them.
struct Files {
    std::string folder;
    std::string acknowledgements;  ///< the hardware side's file; all others are the agent's
    bool isHardwareSide = false;   ///< which of them are meant

    bool include(const std::string& path) const;
};

/// What this process has mapped of the files: a copy of now.
class Mapped {
public:
    explicit Mapped(const Files& files);
    /// The mappings lose their hold on the files and go back to the copy: what this process's
    /// objects still read and store as they end concerns nobody, as if they had ended with it.
    void letGo() const;

private:
    struct Piece {
        std::uintptr_t begin;
        std::vector<std::byte> content;
    };
    std::vector<Piece> pieces_;
};

/// What a child told before it ended.
class Told {
public:
    Told();
    Told(const Told&) = delete;
    Told& operator=(const Told&) = delete;
    ~Told();

    void clear();
    void failureIs(const std::string& text);
    std::string failure() const;
    void add(std::uint32_t table, std::span<const std::byte> bytes);
    struct Note {
        std::uint32_t table;
        std::span<const std::byte> bytes;
    };
    std::vector<Note> notes() const;

private:
    struct Shared;
    Shared* shared_;
};

/// Whether kills at a chosen store are possible here; otherwise the child does all of its
/// operation.
bool storesAreCounted();

/// Does the operation in a child that ends before its `stores`-th store to the files, in mappings
/// that are there or that it makes. Returns what went wrong; empty when the child was killed or
/// came to its end.
std::string killedAt(std::uint64_t stores, const Files& files, Told& told,
                     const std::function<std::string()>& operation);

}  // namespace Simulator
