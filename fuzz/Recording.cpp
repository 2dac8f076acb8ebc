// Bytes as an event of a recording, and as the text of one: refused in one line, or the same again.

#include <optional>
#include <span>
#include <string>

#include "fuzz/support/Input.h"
#include "platform/brumo/Assert.h"
#include "recording/Text.h"

namespace {

using Recording::Contents;

/// What can be decoded is encoded as the same bytes, and said as a text that is the same bytes.
void expectOneForm(const Recording::Event& event, Recording::Bytes bytes) {
    Recording::Buffer again;
    Recording::encode(event, again);
    Brumo::require(Recording::sameBytes(again.bytes(), bytes), "an event has one form");
    if (Recording::is<Recording::Handler>(event))
        return;  // a line of its own is none
    const std::string text = Recording::textOf(event);
    const Contents read = Recording::contentsOfText(text);
    Brumo::require(read.events().size() == 1 && Recording::sameBytes(read.events()[0].bytes, bytes),
                   "text says all of an event", text);
}

/// Text that can be read is, as it is said then, the same recording.
void expectSameText(const Contents& contents) {
    const std::string said = Recording::textOf(contents);
    const Contents again = Recording::contentsOfText(said);
    Brumo::require(Recording::textOf(again) == said, "text is read as it is said", said);
}

/// What `read` returns, unless it refuses the input.
template <class Read>
auto unlessRefused(const Read& read) -> std::optional<decltype(read())> {
    try {
        return read();
    } catch (const Recording::FormatError& error) {
        Brumo::require(error.what()[0] != '\0', "a refusal says why");
        return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::Input input(data, size);
    const bool isText = input.take<std::uint8_t>() % 2 == 0;
    const std::string rest = input.takeRest();
    const auto bytes = std::as_bytes(std::span(rest));
    if (isText) {
        if (const auto contents = unlessRefused([&] { return Recording::contentsOfText(rest); }))
            expectSameText(*contents);
    } else if (const auto event = unlessRefused([&] { return Recording::decode(bytes); })) {
        expectOneForm(*event, bytes);
    }
    return 0;
}
