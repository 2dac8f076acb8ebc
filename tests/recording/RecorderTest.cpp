// What the recorder makes of what it is told.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "recording/File.h"
#include "recording/Recorder.h"
#include "recording/Text.h"

namespace Recording {
namespace {

using Rows = std::vector<KivShimo::Acknowledged>;

/// The text of the events of a recorder that finds these rows in a map, one look after the other.
std::string toldOf(const std::vector<Rows>& looks) {
    class Kept : public Sink {
    public:
        void eventIs(const Buffer& event, std::chrono::nanoseconds time) override {
            contents.add(event.bytes(), time);
        }
        Contents contents;
    };
    Kept kept;
    const Kiv::ManualEventLoop loop;
    Recorder recorder(loop, kept);
    recorder.mounted({});
    for (const Rows& rows : looks) {
        Asic::AckMapReading reading;
        reading.identity = 1;
        reading.log = Asic::AckMapReading::Log::thisOne;
        for (const KivShimo::Acknowledged& row : rows)
            reading.versions.add(row);
        recorder.mapRead(reading, false);
    }
    return textOf(kept.contents);
}

/// The lines of looks behind what they begin with.
const std::string kLook = "look map=1 log=this ";
const std::string kBefore = "= mounted\n" + kLook + "00000001=1 00000002=1 00000003=1\n";

TEST(RecorderLooks, AreToldAlikeInWhateverOrderTheMapHasItsRows) {
    std::array<std::size_t, 4> order{0, 1, 2, 3};
    const auto inOrder = [&](const std::vector<KivShimo::Acknowledged>& rows) {
        Rows ordered;
        for (const std::size_t place : order) {
            if (place < rows.size())
                ordered.push_back(rows[place]);
        }
        return ordered;
    };
    const Rows first{{1, 1}, {2, 1}, {3, 1}};
    do {
        EXPECT_EQ(toldOf({first, inOrder(first)}), kBefore);
        EXPECT_EQ(toldOf({first, inOrder({{1, 2}, {2, 1}, {3, 5}})}),
                  kBefore + kLook + "moved 00000001=2 00000003=5\n");
        EXPECT_EQ(toldOf({first, inOrder({{1, 1}, {2, 1}, {3, 2}, {4, 7}})}),
                  kBefore + kLook + "moved 00000003=2 00000004=7\n");
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(RecorderLooks, AreToldWholeWhereATableHasGoneOrBack) {
    const Rows first{{1, 1}, {2, 1}, {3, 1}};
    const std::string without2 = kBefore + kLook + "00000001=2 00000003=1\n";
    EXPECT_EQ(toldOf({first, {{1, 2}, {3, 1}}}), without2);
    EXPECT_EQ(toldOf({first, {{3, 1}, {1, 2}}}), without2);
    EXPECT_EQ(toldOf({first, {{1, 2}, {3, 1}}, {{2, 1}, {1, 2}, {3, 1}}}),
              without2 + kLook + "moved 00000002=1\n");
    EXPECT_EQ(toldOf({first, {{1, 2}, {2, 0}, {3, 1}}}),
              kBefore + kLook + "00000001=2 00000002=0 00000003=1\n");
}

TEST(RecorderLooks, NameATableOnceThatAMapNamesTwice) {
    const Rows first{{1, 1}, {2, 1}, {3, 1}};
    EXPECT_EQ(toldOf({first, {{1, 1}, {2, 1}, {3, 1}, {2, 4}}}),
              kBefore + kLook + "00000001=1 00000002=1 00000003=1\n");
}

}  // namespace
}  // namespace Recording
