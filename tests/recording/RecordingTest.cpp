// Recordings as bytes, as files and as text.
#include <gtest/gtest.h>

#include <rapidcheck/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fmt/format.h>

#include "recording/PackedEntry.h"
#include "recording/Snapshot.h"
#include "recording/Text.h"
#include "tests/support/TempDir.h"
#include "types/EntryImage.h"
#include "types/PolicyCpuTcamAction.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace Recording {
namespace {

using std::chrono::nanoseconds;

/// One event a line, of every kind.
constexpr const char* kAllKinds =
    "start units=1,65534 counters=8 policers=16 capacity=64 on-own-files time=1795359581617471453\n"
    "file asic/some.table size=4096\n"
    "  0 0102\n"
    "  4000 ff00ff\n"
    "file \"odd \\\" name\\x0a\" size=0\n"
    "= mounted action=1 v4=2 v6=3\n"
    "@ 0.000000001\n"
    "write #1 action 1 0000002a.3 name=bgp disposition=1 counter=0000002a/1 handler\n"
    "write #2 v4 1 0000002a.00000001 label=\"a b\\x0a\" priority=4294967295 action=0000002a.0 "
    "source=192.0.2.1 source-mask=255.255.255.0 destination-port=1 after=#1\n"
    "write #3 v6 1 00000001.00000001 source=2001:db8::1 source-mask=ffff:: source-length=16\n"
    "write #4 v6 2 00000001.00000001 after=#foreign handler\n"
    "@ 12.5\n"
    "turn\n"
    "= counter 0000002a/1 complete update=1 index=7\n"
    "= policer 0000002a/1 exhausted\n"
    "= #1 written version=9\n"
    "= #1 complete version=9\n"
    "answer #1 {\n"
    "  remove #5 v4 1 0000002a.00000001 after=#2 handler\n"
    "  remove-all #6 v6 1\n"
    "} #1\n"
    "= own #7 action 0000002a.3\n"
    "= #7 lost\n"
    "look map=1 log=this consumed=5 pause action=3 2c080999=7\n"
    "look map=2 log=another\n"
    "move counter 0000002a/1\n"
    "sweep policer\n"
    "# said \"by\" somebody\n"
    "end\n";

/// The text with answers ended as textOf() ends them.
std::string again(const Contents& contents) {
    return textOf(contents);
}

TEST(RecordingText, OfEveryKindOfEventIsTheSameTextAgain) {
    EXPECT_EQ(again(contentsOfText(kAllKinds)), kAllKinds);
}

TEST(RecordingText, NamesTheLineAndWhatIsWrongWithIt) {
    const auto refusal = [](const std::string& line) {
        try {
            contentsOfText("turn\n" + line + "\n");
        } catch (const FormatError& error) {
            return std::string(error.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(refusal("jump"), "line 2: no command 'jump'");
    EXPECT_EQ(refusal("write 1 v4 1 1.1"), "line 2: '1' is no number such as #1");
    EXPECT_EQ(refusal("write #1 v5 1 1.1"), "line 2: no table 'v5'");
    EXPECT_EQ(refusal("write #1 v4 70000 1.1"), "line 2: '70000' is no number up to 65535");
    EXPECT_EQ(refusal("write #1 v4 1 x"), "line 2: 'x' is no key of v4");
    EXPECT_EQ(refusal("write #1 v4 1"), "line 2: a key is missing");
    EXPECT_EQ(refusal("write #1 v4 1 1.1 colour=red"), "line 2: no field 'colour'");
    EXPECT_EQ(refusal("write #1 v4 1 1.1 priority=high"), "line 2: 'high' is no priority");
    EXPECT_EQ(refusal("write #1 v4 1 1.1 label=12345678901234567"),
              "line 2: '12345678901234567' is no label");
    EXPECT_EQ(refusal("write #1 v4 1 1.1 label=\"open"), "line 2: a text has no closing quote");
    EXPECT_EQ(refusal("remove #1 v4 1 1.1 label=x"), "line 2: 'label' is not known here");
    EXPECT_EQ(refusal("turn now"), "line 2: 'now' is too much");
    EXPECT_EQ(refusal("look log=mine"), "line 2: 'mine' is none of none, this, another");
    EXPECT_EQ(refusal("= #1 happy"), "line 2: no state 'happy'");
    EXPECT_EQ(refusal("} #1"), "line 2: no answer ends here");
    EXPECT_EQ(refusal("answer #1 {\n} #2"), "line 3: answer #1 has to end first");
    EXPECT_EQ(refusal("file x size=9\n  0 abc"), "line 3: 'abc' are no bytes in hexadecimal");
}

template <class Types>
void roundTrip(const std::vector<std::uint8_t>& bytes, std::uint64_t key) {
    std::array<std::byte, VornPolicyCpu::EntryImage<Types>::kSize> image{};
    for (std::size_t i = 0; i < image.size() && i < bytes.size(); ++i)
        image.at(i) = static_cast<std::byte>(bytes[i]);
    Change change;
    change.number = 1;
    change.table = Types::kTableId.whole();
    change.key = key;
    const PackedEntry packed(image);
    change.entry = packed.bytes();
    Contents contents;
    Buffer encoded;
    encode(change, encoded);
    contents.add(encoded.bytes(), {});
    const Contents read = contentsOfText(textOf(contents));
    RC_ASSERT(sameBytes(read.events().at(0).bytes, encoded.bytes()));
}

RC_GTEST_PROP(RecordingTextProperty, HoldsAllBytesOfAnyEntry,
              (const std::vector<std::uint8_t>& bytes, std::uint64_t key)) {
    roundTrip<VornPolicyCpu::PolicyCpuTcamActionTypes>(bytes, key);
    roundTrip<VornPolicyCpu::PolicyCpuV4TcamEntryTypes>(bytes, key);
    roundTrip<VornPolicyCpu::PolicyCpuV6TcamEntryTypes>(bytes, key);
}

TEST(RecordingText, HasFieldsAndNotBytesOfAnEntryThatFeatureCodeWrites) {
    VornPolicyCpu::PolicyCpuV4TcamEntryEntry entry;
    entry.key = {1, 2};
    entry.priority = 7;
    entry.bytes.ttlMask = 255;
    const VornPolicyCpu::EntryImage<VornPolicyCpu::PolicyCpuV4TcamEntryTypes> image(entry);
    Change change;
    change.number = 1;
    change.table = VornPolicyCpu::PolicyCpuV4TcamEntryTypes::kTableId.whole();
    change.unit = 3;
    change.key = std::bit_cast<std::uint64_t>(entry.key);
    const PackedEntry packed(image.bytes());
    change.entry = packed.bytes();
    EXPECT_EQ(textOf(Event(change)), "write #1 v4 3 00000001.00000002 priority=7 ttl-mask=255\n");
}

/// Whether the bytes are refused, or say all of another event.
bool areRefusedOrAnother(Bytes bytes) {
    try {
        Buffer again;
        encode(decode(bytes), again);
        return sameBytes(again.bytes(), bytes);
    } catch (const FormatError&) {
        return true;
    }
}

/// Numbers in their sizes, the lowest byte first, and texts, one behind the other.
class Laid {
public:
    Laid& number(std::uint64_t value, std::size_t size) {
        for (std::size_t byte = 0; byte < size; ++byte)
            bytes_.push_back(static_cast<std::byte>(value >> 8 * byte));
        return *this;
    }
    Laid& all(Bytes value) {
        bytes_.insert(bytes_.end(), value.begin(), value.end());
        return *this;
    }
    Bytes bytes() const { return bytes_; }

private:
    std::vector<std::byte> bytes_;
};

TEST(RecordingCodec, LaysFieldsOneBehindTheOtherWhereverWordsEnd) {
    const std::string text = "abcdefgh12345678ABCDEFGH";
    const Bytes letters = std::as_bytes(std::span(text));
    for (std::size_t path = 0; path <= 8; ++path) {
        for (std::size_t run = 1; run <= 17; ++run) {
            const File file{std::string_view(text).substr(0, path),
                            99,
                            {{3, letters.first(run)}, {50, letters.last(run)}}};
            Laid laid;
            laid.number(1, 1).number(path, 4).all(letters.first(path)).number(99, 8);
            laid.number(3, 8).number(run, 4).all(letters.first(run));
            laid.number(50, 8).number(run, 4).all(letters.last(run));
            Buffer encoded;
            encode(file, encoded);
            ASSERT_TRUE(sameBytes(encoded.bytes(), laid.bytes())) << path << ' ' << run;
            ASSERT_EQ(sizeOf(file), laid.bytes().size());
            const Laid behind = Laid().all(laid.bytes()).number(0, 8);  // zeros fill the last word
            ASSERT_TRUE(sameBytes(std::as_bytes(encoded.words()),
                                  behind.bytes().first(encoded.words().size_bytes())));
        }
    }
    EXPECT_EQ(sizeOf(Change()) % kWordSize, 0U);  // so that the entry stands in whole words
}

TEST(RecordingCodec, RefusesEventsThatAreCutOffOrTooLong) {
    const Contents contents = contentsOfText(kAllKinds);
    for (const Recorded& recorded : contents.events()) {
        for (std::size_t size = 0; size < recorded.bytes.size(); ++size) {
            const Bytes cut = recorded.bytes.first(size);
            // A list that ends an event may be shorter.
            EXPECT_TRUE(areRefusedOrAnother(cut)) << size;
            const Event whole = decode(recorded.bytes);
            if (!is<Look>(whole) && !is<Mounted>(whole) && !is<File>(whole)) {
                EXPECT_THROW(decode(cut), FormatError) << size;
            }
        }
        std::vector<std::byte> longer(recorded.bytes.begin(), recorded.bytes.end());
        longer.push_back(std::byte{0});
        EXPECT_THROW(decode(longer), FormatError);
    }
}

TEST(RecordingCodec, RefusesKindsAndValuesThatItDoesNotKnow) {
    EXPECT_THROW(decode(std::vector{std::byte{99}}), FormatError);
    Buffer encoded;
    encode(ResourceOperation{}, encoded);
    std::vector<std::byte> bytes(encoded.bytes().begin(), encoded.bytes().end());
    bytes[1] = std::byte{9};
    EXPECT_THROW(decode(bytes), FormatError);
}

TEST(RecordingCodec, HasOneFormForEachEntry) {
    std::vector<std::byte> image(20);
    image[2] = image[17] = std::byte{1};
    const PackedEntry packed(image);
    const std::vector<std::byte> good(packed.bytes().begin(), packed.bytes().end());
    ASSERT_EQ(good.size(), 24U);
    EXPECT_TRUE(isPackedEntry(good));
    EXPECT_EQ(unpackedEntry(good), image);
    const auto isRefused = [&good](auto change) {
        std::vector<std::byte> bytes = good;
        change(bytes);
        return !isPackedEntry(bytes);
    };
    EXPECT_TRUE(isRefused([](auto& bytes) { bytes.clear(); }));
    EXPECT_TRUE(isRefused([](auto& bytes) { bytes.pop_back(); }));
    EXPECT_TRUE(isRefused([](auto& bytes) { bytes.resize(16); }));
    EXPECT_TRUE(isRefused([](auto& bytes) { bytes.resize(32); }));
    EXPECT_TRUE(
        isRefused([](auto& bytes) { bytes[0] = std::byte{16}; }));         // shorter than its words
    EXPECT_TRUE(isRefused([](auto& bytes) { bytes[1] = std::byte{2}; }));  // larger than any
    EXPECT_TRUE(isRefused([](auto& bytes) { bytes[10] = std::byte{0}; }));  // a word of zeros
    EXPECT_TRUE(isRefused([](auto& bytes) { bytes[20] = std::byte{1}; }));  // behind its end
}

TEST(RecordingCodec, PacksTheLargestEntryAndTheEmptyOne) {
    for (const std::size_t size : {std::size_t{0}, PackedEntry::kMostBytes}) {
        const std::vector<std::byte> image(size, std::byte{9});
        const PackedEntry packed(image);
        EXPECT_TRUE(isPackedEntry(packed.bytes()));
        EXPECT_EQ(unpackedEntry(packed.bytes()), image);
    }
    EXPECT_THROW(contentsOfText("write #1 v4 1 00000001.00000002 image=" + std::string(770, '0')),
                 FormatError);
}

TEST(RecordingCodec, RefusesWhatNoTextCouldSay) {
    const auto isRefused = [](const auto& event) {
        Buffer encoded;
        encode(event, encoded);
        try {
            decode(encoded.bytes());
        } catch (const FormatError&) {
            return true;
        }
        return false;
    };
    const std::array<std::byte, 2> two{};
    EXPECT_TRUE(isRefused(File{"f", 9, {{8, two}}}));            // beyond its end
    EXPECT_TRUE(isRefused(File{"f", 9, {{0, two}, {2, two}}}));  // one part in two
    EXPECT_TRUE(isRefused(File{"f", 9, {{4, two}, {0, two}}}));  // in the wrong order
    EXPECT_FALSE(isRefused(File{"f", 9, {{0, two}, {3, two}}}));
    EXPECT_TRUE(isRefused(Note{"two\nlines"}));
    EXPECT_TRUE(isRefused(OwnChange{1, 1, "a b"}));
    EXPECT_TRUE(isRefused(State{1, 7, 1}));
    Change waiting;
    waiting.dependency = kMostChanges + 1;
    const PackedEntry nothing(Bytes{});
    waiting.entry = nothing.bytes();
    EXPECT_TRUE(isRefused(waiting));
    waiting.dependency = Change::kForeign;
    EXPECT_FALSE(isRefused(waiting));
    Look look;
    look.rows = {{1, 1}, {2, 1}};
    EXPECT_FALSE(isRefused(look));
    look.rows = {{1, 1}, {1, 2}};  // a table twice
    EXPECT_TRUE(isRefused(look));
    Change remove;
    remove.operation = Change::Operation::remove;
    remove.entry = two;
    EXPECT_TRUE(isRefused(remove));
}

// Files.

/// Where a file has its frames: in the end, and the newest while its writer is at work.
constexpr std::size_t kBody = std::size_t{1} << 20U;
constexpr std::size_t kFront = 16;

class RecordingFile : public testing::Test {
protected:
    std::string file() const { return dir_.path() + "/a.rec"; }
    static void write(FileWriter& writer, const Contents& contents) {
        for (const Recorded& each : contents.events())
            std::visit([&](const auto& event) { writer.tell(event, each.time); },
                       decode(each.bytes));
    }
    std::vector<std::byte> bytes() const {
        std::ifstream in(file(), std::ios::binary);
        std::vector<std::byte> all(std::filesystem::file_size(file()));
        in.read(reinterpret_cast<char*>(all.data()), static_cast<std::streamsize>(all.size()));
        return all;
    }
    struct Images {
        std::vector<std::byte> atWork;
        std::vector<std::byte> atRest;
    };
    /// Of the file while its writer has all of the text's events, and when it has ended.
    Images imagesOf(const std::string& text) const {
        Images images;
        {
            FileWriter writer(file());
            write(writer, contentsOfText(text));
            images.atWork = bytes();
        }
        images.atRest = bytes();
        return images;
    }
    void bytesAre(const std::vector<std::byte>& bytes) const {
        std::ofstream out(file(), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
    }

private:
    TestSupport::TempDir dir_;
};

TEST_F(RecordingFile, HoldsEventsWithTheirTimes) {
    const Contents contents = contentsOfText(kAllKinds);
    {
        FileWriter writer(file());
        write(writer, contents);
        EXPECT_EQ(writer.failure(), "");
    }
    EXPECT_EQ(textOf(Contents::ofFile(file())), kAllKinds);
    EXPECT_TRUE(Contents::ofFile(file()).isBinary());
}

TEST_F(RecordingFile, IsReadWhileItGrows) {
    const Contents contents = contentsOfText(kAllKinds);
    FileWriter writer(file());
    write(writer, contents);
    EXPECT_EQ(textOf(Contents::ofFile(file())), kAllKinds);
}

TEST_F(RecordingFile, IsTheSameOfEventsAndOfTheirBytes) {
    const Contents contents = contentsOfText(kAllKinds);
    const std::vector<std::byte> ofEvents = imagesOf(kAllKinds).atRest;
    std::filesystem::remove(file());
    {
        FileWriter writer(file());
        for (const Recorded& event : contents.events())
            writer.eventIs(Buffer(event.bytes), event.time);
    }
    EXPECT_TRUE(bytes() == ofEvents);
}

TEST_F(RecordingFile, MovesItsFramesAtRestWhereThatIsWorthIt) {
    const Contents contents = contentsOfText(kAllKinds);
    FileWriter writer(file());
    write(writer, contents);
    writer.makeRoom();
    EXPECT_EQ(std::filesystem::file_size(file()), kBody);
    for (int round = 1; round < 200; ++round)
        write(writer, contents);
    EXPECT_EQ(std::filesystem::file_size(file()), kBody);
    writer.makeRoom();
    const std::vector<std::byte> found = bytes();
    EXPECT_GT(found.size(), kBody);
    EXPECT_TRUE(std::all_of(found.begin() + kFront, found.begin() + kBody,
                            [](std::byte each) { return each == std::byte{0}; }));
    write(writer, contents);
    const Contents read = Contents::ofFile(file());
    EXPECT_EQ(read.damage(), "");
    EXPECT_EQ(read.events().size(), 201 * contents.events().size());
}

TEST_F(RecordingFile, IsReadWithoutDamageBesideAWriterThatMovesItsFrames) {
    const Contents contents = contentsOfText(kAllKinds);
    FileWriter writer(file());
    std::atomic<bool> isOver{false};
    std::thread other([&] {
        for (int round = 0; round < 10'000; ++round) {
            write(writer, contents);
            const bool rests = round / 2500 % 2 == 0;  // otherwise the front becomes full
            if (rests)
                writer.makeRoom();
        }
        isOver = true;
    });
    std::size_t before = 0;
    do {
        const Contents read = Contents::ofFile(file());
        EXPECT_EQ(read.damage(), "");
        EXPECT_GE(read.events().size(), before);
        before = read.events().size();
    } while (!isOver);
    other.join();
    EXPECT_EQ(Contents::ofFile(file()).events().size(), 10'000 * contents.events().size());
}

TEST_F(RecordingFile, GoesOnBehindWhatItHas) {
    const Contents contents = contentsOfText(kAllKinds);
    for (int i = 0; i < 2; ++i) {
        FileWriter writer(file());
        write(writer, contents);
    }
    EXPECT_EQ(textOf(Contents::ofFile(file())), std::string(kAllKinds) + kAllKinds);
}

TEST_F(RecordingFile, GrowsBeyondWhatIsMappedAtOnce) {
    const std::vector<std::byte> large(3'000'001, std::byte{7});
    const File event{"large", large.size(), {{0, large}}};
    {
        FileWriter writer(file());
        for (int i = 0; i < 3; ++i) {
            writer.tell(event, nanoseconds(i));
            for (int small = 0; small < 3000; ++small)
                writer.tell(Turn(), nanoseconds(i));
            writer.makeRoom();
        }
    }
    const Contents read = Contents::ofFile(file());
    EXPECT_EQ(read.damage(), "");
    ASSERT_EQ(read.events().size(), 9003U);
    Buffer encoded;
    encode(event, encoded);
    EXPECT_TRUE(sameBytes(read.events()[6002].bytes, encoded.bytes()));
}

TEST_F(RecordingFile, HoldsEventsThatJustFillItsFrontAndThoseThatJustDoNot) {
    const std::vector<std::byte> bytes(kBody, std::byte{7});
    const auto event = [&](std::size_t size) {
        return File{"f", kBody, {{0, Bytes(bytes).first(size)}}};
    };
    const std::size_t most = kBody - kFront - 8 - sizeOf(event(0));  // beside the frame's own word
    for (const std::size_t size : {most - 8, most, most + 1, most + 8}) {
        {
            FileWriter writer(file());
            writer.tell(event(size), nanoseconds(0));
            EXPECT_EQ(std::filesystem::file_size(file()) == kBody, size <= most) << size;
            writer.tell(Turn(), nanoseconds(0));
        }
        const Contents read = Contents::ofFile(file());
        EXPECT_EQ(read.damage(), "");
        EXPECT_EQ(read.events().size(), 2U) << size;
        std::filesystem::remove(file());
    }
}

TEST_F(RecordingFile, IsReadableAfterAKillWithAllThatWasTold) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        FileWriter writer(file());
        const Contents contents = contentsOfText(kAllKinds);
        for (std::uint32_t told = 0;; ++told) {
            write(writer, contents);
            writer.makeRoom();
            static_cast<void>(::write(ready[1], &told, sizeof(told)));
        }
    }
    ::close(ready[1]);
    std::uint32_t told = 0;
    while (told < 500)
        ASSERT_EQ(::read(ready[0], &told, sizeof(told)), static_cast<ssize_t>(sizeof(told)));
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    while (::read(ready[0], &told, sizeof(told)) == static_cast<ssize_t>(sizeof(told))) {
    }
    ::close(ready[0]);
    const std::size_t each = contentsOfText(kAllKinds).events().size();
    const Contents read = Contents::ofFile(file());
    EXPECT_EQ(read.damage(), "");
    EXPECT_GE(read.events().size(), (told + 1) * each);
    {
        FileWriter writer(file());
        write(writer, contentsOfText("turn\n"));
    }
    EXPECT_EQ(Contents::ofFile(file()).events().size(), read.events().size() + 1);
}

/// Of three small events.
constexpr const char* kThree = "turn\n@ 0.000001\nturn\nend\n";

void expectRotIsFound(const std::vector<std::byte>& whole, std::size_t begin, std::size_t end) {
    for (std::size_t at = begin; at < end; ++at) {
        for (const unsigned bit : {1U, 0x80U}) {
            std::vector<std::byte> rotten = whole;
            rotten[at] ^= static_cast<std::byte>(bit);
            const std::string text = textOf(Contents(rotten));
            ASSERT_TRUE(std::string(kThree).starts_with(text)) << at << ' ' << text;
            ASSERT_NE(text, kThree) << at;
            ASSERT_NE(Contents(rotten).damage(), "") << at;
        }
    }
}

TEST_F(RecordingFile, TellsWhereItHasRottedAndWhatStandsBeforeIsRead) {
    const auto [atWork, whole] = imagesOf(kThree);
    EXPECT_EQ(textOf(Contents(atWork)), kThree);
    expectRotIsFound(whole, kBody, whole.size());
    // A head that has become zero tells no more than that nothing was written there.
    expectRotIsFound(atWork, kFront, kFront + whole.size() - kBody);
    std::vector<std::byte> rotten = whole;
    rotten.back() ^= std::byte{1};
    EXPECT_EQ(Contents(rotten).damage(),
              fmt::format("event 3 at byte {}: the frame does not verify", whole.size() - 16));
    bytesAre(rotten);
    const FileWriter writer(file());
    EXPECT_EQ(writer.setAside(), file() + ".damaged");
    EXPECT_EQ(std::filesystem::file_size(writer.setAside()), rotten.size());
}

TEST_F(RecordingFile, HoldsEachFrameInItsPlaceOnly) {
    std::vector<std::byte> swapped = imagesOf("turn\nend\n").atRest;
    ASSERT_EQ(swapped.size(), kBody + 32);
    std::swap_ranges(swapped.begin() + kBody, swapped.begin() + kBody + 16,
                     swapped.begin() + kBody + 16);
    EXPECT_EQ(textOf(Contents(swapped)), "");
    EXPECT_NE(Contents(swapped).damage(), "");
}

TEST_F(RecordingFile, TellsThatItIsCutWhereverThatIs) {
    {
        FileWriter writer(file());
        write(writer, contentsOfText(kAllKinds));
    }
    const std::vector<std::byte> whole = bytes();
    for (std::size_t size = kFront; size < whole.size(); size += size < kBody - 8 ? 4000 : 1) {
        const Contents part({whole.begin(), whole.begin() + static_cast<long>(size)});
        ASSERT_NE(part.damage(), "") << size;
        ASSERT_TRUE(std::string(kAllKinds).starts_with(textOf(part)) || !part.events().empty());
    }
}

/// What a kill leaves of the front when it strikes while the frames in it are being moved, for the
/// first time and later on.
TEST_F(RecordingFile, IsWholeWhereverItsFramesHaveBeenMovedTo) {
    const Contents contents = contentsOfText(kAllKinds);
    for (const std::size_t before : {0U, 100U}) {
        std::vector<std::byte> atWork;
        {
            FileWriter writer(file());
            for (std::size_t round = 0; round < before; ++round)
                write(writer, contents);
            writer.makeRoom();
            write(writer, contents);
            atWork = bytes();
        }
        const std::vector<std::byte> whole = bytes();
        const auto beginOfMoved = static_cast<long>(atWork.size());
        const std::size_t size = whole.size() - atWork.size();
        ASSERT_EQ(atWork.size() > kBody, before != 0);
        const auto isWhole = [&](const std::vector<std::byte>& found) {
            bytesAre(found);
            const Contents read = Contents::ofFile(file());
            if (read.events().size() != (before + 1) * contents.events().size() ||
                !textOf(read).ends_with(kAllKinds))
                return false;
            { FileWriter writer(file()); }
            return bytes() == whole;
        };
        for (std::size_t moved = 0; moved <= size; moved += moved < 64 ? 1 : 37) {
            std::vector<std::byte> found = atWork;  // part of it stands in the body
            found.insert(found.end(), whole.begin() + beginOfMoved,
                         whole.begin() + beginOfMoved + static_cast<long>(moved));
            ASSERT_TRUE(isWhole(found)) << moved;
        }
        for (std::size_t cleared = 0; cleared <= size; cleared += cleared < 64 ? 1 : 37) {
            std::vector<std::byte> found = atWork;  // all does, and part of the front is cleared
            found.insert(found.end(), whole.begin() + beginOfMoved, whole.end());
            std::fill_n(found.begin() + kFront, cleared, std::byte{0});
            ASSERT_TRUE(isWhole(found)) << cleared;
        }
        std::vector<std::byte> found = whole;  // a large frame whose first word is missing
        found.resize(found.size() + 8);
        found.resize(found.size() + 100, std::byte{7});
        EXPECT_TRUE(isWhole(found));
        std::filesystem::remove(file());
    }
}

TEST_F(RecordingFile, HasOneWriter) {
    const FileWriter first(file());
    try {
        const FileWriter second(file());
        FAIL() << "two writers";
    } catch (const FormatError& error) {
        EXPECT_EQ(error.what(), file() + ": lock recording: another process writes it");
    }
}

TEST_F(RecordingFile, OfAnotherKindIsRefusedAndLeftAlone) {
    std::ofstream(file()) << "some text that is no recording at all";
    EXPECT_THROW(FileWriter writer(file()), FormatError);
    EXPECT_THROW(Contents::ofFile(file()), FormatError);
    EXPECT_EQ(std::filesystem::file_size(file()), 37U);
    std::filesystem::remove(file());
    std::filesystem::create_directory(file());
    EXPECT_THROW(FileWriter writer(file()), std::system_error);
    std::filesystem::remove(file());
    std::filesystem::create_symlink("/dev/null", file());
    EXPECT_THROW(FileWriter writer(file()), std::system_error);
}

/// In a process whose files may not grow beyond a size, and do not end it.
template <class Work>
bool isTrueWithoutRoom(const Work& work) {
    const pid_t child = ::fork();
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{3U << 20U, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        ::_exit(work() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

TEST_F(RecordingFile, ThatCannotGrowKeepsWhatItHas) {
    const Contents contents = contentsOfText(kAllKinds);
    const std::string why = file() + ": extend recording: File too large";
    EXPECT_TRUE(isTrueWithoutRoom([&] {
        FileWriter writer(file());
        for (int i = 0; i < 100000 && writer.failure().empty(); ++i)
            write(writer, contents);
        write(writer, contents);
        writer.makeRoom();
        return writer.failure() == why;
    }));
    const std::size_t had = Contents::ofFile(file()).events().size();
    EXPECT_GT(had, 1000U);
    // Its next writer has no more room from the start.
    EXPECT_TRUE(isTrueWithoutRoom([&] {
        FileWriter writer(file());
        write(writer, contents);
        writer.makeRoom();
        return writer.failure() == why;
    }));
    const Contents read = Contents::ofFile(file());
    EXPECT_EQ(read.damage(), "");
    EXPECT_EQ(read.events().size(), had);
}

TEST_F(RecordingFile, ThatCouldNotGrowAtRestGoesOnWhenItCanAgain) {
    const Contents contents = contentsOfText(kAllKinds);
    EXPECT_TRUE(isTrueWithoutRoom([&] {
        FileWriter writer(file());
        const auto writeABit = [&] {
            for (int i = 0; i < 100; ++i)
                write(writer, contents);
            writer.makeRoom();
        };
        std::uintmax_t size = 0;
        do {
            size = std::filesystem::file_size(file());
            writeABit();
        } while (std::filesystem::file_size(file()) != size);
        const rlimit limit{RLIM_INFINITY, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        writeABit();
        return writer.failure().empty() && std::filesystem::file_size(file()) > size;
    }));
    const Contents read = Contents::ofFile(file());
    EXPECT_EQ(read.damage(), "");
    EXPECT_GT(read.events().size(), 0U);
    EXPECT_EQ(read.events().size() % (100 * contents.events().size()), 0U);
}

// Files of a state directory.

TEST(RecordingSnapshot, LaysFilesOutAsTheyWere) {
    const TestSupport::TempDir from;
    const TestSupport::TempDir to;
    std::filesystem::create_directories(from.path() + "/a/b");
    std::string sparse(100'000, '\0');
    sparse[3] = 'x';
    sparse[4095] = 'y';
    sparse[4096] = 'z';
    sparse[99'999] = 'e';
    std::ofstream(from.path() + "/a/b/sparse.table") << sparse;
    std::ofstream(from.path() + "/a/empty.table.manifest") << "";
    std::ofstream(from.path() + "/a.rec") << "left out";
    std::ofstream(from.path() + "/agent.ring") << "left out";
    std::filesystem::create_symlink("/etc/passwd", from.path() + "/a/link");
    std::vector<std::string> told;
    forEachFile(from.path(), [&](const File& file) {
        told.emplace_back(file.path);
        layOut(file, to.path());
    });
    EXPECT_EQ(told, (std::vector<std::string>{"a/b/sparse.table", "a/empty.table.manifest"}));
    std::ifstream in(to.path() + "/a/b/sparse.table");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), sparse);
    EXPECT_EQ(std::filesystem::file_size(to.path() + "/a/empty.table.manifest"), 0U);
}

TEST(RecordingSnapshot, LeadsNowhereElse) {
    const TestSupport::TempDir dir;
    const std::array<std::byte, 1> byte{};
    for (const char* const path : {"", "/tmp/x", "../x", "a/../../x"})
        EXPECT_THROW(layOut({path, 1, {}}, dir.path()), FormatError) << path;
    EXPECT_THROW(layOut({"x", 1, {{1, byte}}}, dir.path()), FormatError);
    EXPECT_THROW(layOut({"y", 1, {{~std::uint64_t{0}, byte}}}, dir.path()), FormatError);
    std::filesystem::create_symlink("/tmp", dir.path() + "/elsewhere");
    EXPECT_THROW(layOut({"elsewhere", 1, {}}, dir.path()), std::system_error);
}

}  // namespace
}  // namespace Recording
