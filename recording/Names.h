// Tables, keys, states and operations as recordings name them in text.
//
// Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "recording/Events.h"

namespace Recording {

/// "action", "v4", "v6", "counter", "policer"; the number in hexadecimal of any other.
std::string tableName(std::uint32_t table);
/// Nothing where it is no such name.
std::optional<std::uint32_t> tableOfName(std::string_view name);

/// The key's bytes as the table writes its keys.
std::string keyName(std::uint32_t table, std::uint64_t key);
/// Nothing where the text is no key of the table.
std::optional<std::uint64_t> keyOfName(std::uint32_t table, std::string_view text);

/// Of Asic::EntryState: "created", "written", "undefined", "exhausted", "complete", "failed",
/// "lost".
std::string_view stateName(std::uint8_t state);
std::optional<std::uint8_t> stateOfName(std::string_view name);

/// "write", "remove", "remove-all".
std::string_view operationName(Change::Operation operation);
/// "move", "fail", "restore", "sweep".
std::string_view operationName(ResourceOperation::Operation operation);

}  // namespace Recording
