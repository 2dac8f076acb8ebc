// Bytes of shared memory that others find changed, below a running system.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "platform/kivshimo/detail/MapLayout.h"
#include "tests/hwside/AgentSide.h"

namespace HwSide::Test {

/// Flips bits of a byte that a running system holds.
inline void spoil(const std::string& file, std::size_t offset, int bits = 0x5A) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    ASSERT_TRUE(stream) << file;
    stream.seekg(static_cast<std::streamoff>(offset));
    const int byte = stream.get();
    stream.seekp(static_cast<std::streamoff>(offset));
    stream.put(static_cast<char>(byte ^ bits));
}

/// Where the file holds these bytes behind its headers; the first place.
inline std::size_t placeOf(const std::string& file, const std::string& bytes) {
    std::ifstream stream(file, std::ios::binary);
    const std::string all((std::istreambuf_iterator<char>(stream)), {});
    const std::size_t at = all.find(bytes, KivShimo::detail::kAreasOffset);
    EXPECT_NE(at, std::string::npos) << file;
    return at;
}

/// Makes an IPv4 entry of that label look as if its store was half done, or whole again.
inline void tearOrMend(const std::string& file, const std::string& label) {
    using Value = TableWriter<V4Types>::ConfigTable::Value;
    using Slot = KivShimo::detail::MapSlot<Value>;
    const std::size_t at = offsetof(Value, logEntry) + offsetof(V4Types::LogEntry, label);
    const std::size_t slot = placeOf(file, label.substr(1)) - 1 - at - offsetof(Slot, value);
    spoil(file, slot + offsetof(Slot, value) + at, 1);
    spoil(file, slot, KivShimo::detail::kMidStore);
}

}  // namespace HwSide::Test
