// Kills at every instruction: a child does one thing while its parent steps it with ptrace and
// keeps what the files held after each store.
//
// A process killed by a signal leaves exactly the stores that it has retired. So the files after
// each instruction are all that a kill within the stepped code can leave.
//
// A step takes as long as tens of thousands of instructions. The other way steps only what stores
// into a mapped file: the mappings are kept read-only, so each such store faults first; besides,
// the files are looked at after each system call. Nothing else changes them, so it sees what the
// first way sees.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Torture {

/// The regular files below a folder by relative path.
using Image = std::map<std::string, std::string>;

Image imageOf(const std::string& folder);
/// Replaces what is below the folder.
void imageIs(const std::string& folder, const Image& image);
std::uint64_t hashOf(const Image& image);

struct Steps {
    std::uint64_t instructions = 0;  ///< those that were stepped
    std::vector<Image> images;       ///< distinct ones in their order, that before the action first
    Image after;
};

/// Runs `prepare` and then, stepped, `action` in a child whose tables lie below `folder`. Throws
/// std::runtime_error when the child dies.
Steps stepped(const std::string& folder, const std::function<void()>& prepare,
              const std::function<void()>& action);

/// The same, stepping only stores into mapped files that `action` makes, opens or maps; files that
/// come and go are seen as well. REQUIRES: x86-64.
Steps steppedByStores(const std::string& folder, const std::function<void()>& prepare,
                      const std::function<void()>& action);

/// What the function returns in a child of its own; throws std::runtime_error when the child dies.
std::string inChild(const std::function<std::string()>& function);

}  // namespace Torture
