#include "recording/Frames.h"

namespace Recording {

std::optional<Framed> frameIn(Bytes bytes, std::size_t offset) {
    if (bytes.empty())
        return std::nullopt;
    if (bytes.size() < kWordSize)
        throw FormatError("the frame is cut off");
    const std::uint64_t head = wordAt(bytes, 0);
    if (head == 0)
        return std::nullopt;
    const std::uint64_t length = head >> 32U;
    const std::size_t size = length & ~kPassedFollows;
    const std::size_t before = (length & kPassedFollows) == 0 ? 1 : 2;
    const std::size_t words = before + wordCount(size);
    if (words * kWordSize > bytes.size())
        throw FormatError("the frame is cut off");
    FrameSum sum(length, offset);
    for (std::size_t word = 1; word < words; ++word)
        sum.add(wordAt(bytes, word));
    if (head != (length << 32U | sum.check()))
        throw FormatError("the frame does not verify");
    const std::uint64_t passed = before == 1 ? 0 : wordAt(bytes, 1);
    return Framed{words * kWordSize, std::chrono::nanoseconds(static_cast<std::int64_t>(passed)),
                  bytes.subspan(before * kWordSize, size)};
}

}  // namespace Recording
