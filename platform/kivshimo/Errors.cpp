// The texts of the errors.
#include "platform/kivshimo/Errors.h"

#include <fmt/format.h>

namespace KivShimo {
namespace {

std::string holderText(std::uint64_t pid) {
    return pid == 0 ? std::string("another writer holds it")
                    : fmt::format("the process with pid {} holds it", pid);
}

}  // namespace

CorruptionError::CorruptionError(std::string_view file, std::string_view collection,
                                 std::uint64_t slot, std::string_view what)
    : std::runtime_error(
          fmt::format("{}: collection {}: slot {}: {}", file, collection, slot, what)) {}

MountError::MountError(std::string_view path, std::string_view operation, std::string_view reason)
    : std::runtime_error(fmt::format("{}: {}: {}", path, operation, reason)) {}

DuplicateWriterError::DuplicateWriterError(std::string_view path, std::uint64_t holderPid)
    : MountError(path, "mount for writing", holderText(holderPid)), holderPid_(holderPid) {}

BusyError::BusyError(std::string_view file, std::string_view collection, std::uint64_t slot)
    : std::runtime_error(fmt::format("{}: collection {}: slot {}: a writer is in the middle of a "
                                     "store, or was when it ended",
                                     file, collection, slot)) {}

}  // namespace KivShimo
