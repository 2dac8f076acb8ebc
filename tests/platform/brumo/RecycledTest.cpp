#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "platform/brumo/Recycled.h"

namespace {

using Brumo::Recycled;

template <std::size_t kBytes>
struct Object : Recycled {
    unsigned char bytes[kBytes];
};

/// As many threads may run while it lives.
class SeveralThreads {
public:
    SeveralThreads() { Brumo::ThreadControl::multiThreadedIs(true); }
    SeveralThreads(const SeveralThreads&) = delete;
    SeveralThreads& operator=(const SeveralThreads&) = delete;
    ~SeveralThreads() { Brumo::ThreadControl::multiThreadedIs(false); }
};

TEST(RecycledTest, GivesTheMemoryThatWasFreedToTheNextOfItsSize) {
    auto first = std::make_unique<Object<40>>();
    const void* const place = first.get();
    first = nullptr;
    const auto larger = std::make_unique<Object<100>>();
    const auto second = std::make_unique<Object<40>>();
    if (Recycled::kKeepsBlocks) {
        EXPECT_EQ(second.get(), place);
    }
}

TEST(RecycledTest, GivesABlockToALargerObjectOfItsClassThatFitsIt) {
    for (int round = 0; round < 3; ++round) {
        std::vector<std::unique_ptr<Object<33>>> small;
        std::vector<std::unique_ptr<Object<48>>> large;
        for (int i = 0; i < 100; ++i)
            small.push_back(std::make_unique<Object<33>>());
        small.clear();
        for (int i = 0; i < 100; ++i) {
            large.push_back(std::make_unique<Object<48>>());
            std::memset(large.back()->bytes, i, sizeof(large.back()->bytes));
        }
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(large[static_cast<std::size_t>(i)]->bytes[0], i);
            EXPECT_EQ(large[static_cast<std::size_t>(i)]->bytes[47], i);
        }
    }
}

TEST(RecycledTest, KeepsNoMoreThanItSays) {
    std::vector<std::unique_ptr<Object<200>>> many;
    for (std::uint32_t i = 0; i < Recycled::kMostKept + 10; ++i)
        many.push_back(std::make_unique<Object<200>>());
    many.clear();
    EXPECT_EQ(Recycled::kept(200), Recycled::kKeepsBlocks ? Recycled::kMostKept : 0U);
}

TEST(RecycledTest, NeitherKeepsNorGivesOutWhileThereAreSeveralThreads) {
    std::make_unique<Object<300>>();
    const std::uint32_t before = Recycled::kept(300);
    const SeveralThreads threads;
    const auto object = std::make_unique<Object<300>>();
    EXPECT_EQ(Recycled::kept(300), before) << "what was kept stays where it is";
    std::make_unique<Object<300>>();
    EXPECT_EQ(Recycled::kept(300), before);
}

TEST(RecycledTest, LeavesLargeObjectsToTheHeap) {
    std::make_unique<Object<5000>>();
    EXPECT_EQ(Recycled::kept(5000), 0U);
}

}  // namespace
