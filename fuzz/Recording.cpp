// Bytes as an event of a recording, and as the text of one: refused in one line, or the same again.

#include "fuzz/support/Input.h"
#include "platform/brumo/Assert.h"
#include "recording/Text.h"

namespace {

using Recording::Contents;

/// What can be decoded is encoded as the same bytes, and said as a text that is the same bytes.
void event(Recording::Bytes bytes) {
    const Recording::Event event = Recording::decode(bytes);
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
void text(const std::string& text) {
    const Contents contents = Recording::contentsOfText(text);
    const std::string said = Recording::textOf(contents);
    const Contents again = Recording::contentsOfText(said);
    Brumo::require(Recording::textOf(again) == said, "text is read as it is said", said);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz::Input input(data, size);
    const bool isText = input.take<std::uint8_t>() % 2 == 0;
    const std::string rest = input.takeRest();
    try {
        if (isText) {
            text(rest);
        } else {
            event(std::as_bytes(std::span(rest)));
        }
    } catch (const Recording::FormatError& error) {
        Brumo::require(error.what()[0] != '\0', "a refusal says why");
    }
    return 0;
}
