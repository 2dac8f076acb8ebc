// The numbered queue of a table's handles: numbering, segments, look-up, and its broken invariants.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "swtable/HandleQueue.h"
#include "tests/entrylog/Bindings.h"

namespace {

using VornPolicyCpu::HandleQueue;
using VornPolicyCpu::serialAtOrAfter;

struct Element final : Brumo::RefCounted {
    explicit Element(std::uint64_t id) : value(id) {}
    std::uint64_t value;
};
using Queue = HandleQueue<Element>;
using Capacities = std::vector<std::size_t>;

/// Enqueues `count` elements and returns the last one's number.
std::uint32_t fill(Queue& queue, std::size_t count) {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < count; ++i)
        number = queue.enqueue(Brumo::make<Element>(i));
    return number;
}

void drain(Queue& queue, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        ASSERT_NE(queue.dequeue(), nullptr);
}

// Numbers.

TEST(HandleQueueNumbers, BeginWithOne) {
    Queue queue;
    EXPECT_EQ(fill(queue, 1), 1U);
    EXPECT_EQ(queue.frontNumber(), 1U);
}

TEST(HandleQueueNumbers, AreConsecutive) {
    Queue queue;
    for (std::uint32_t number = 1; number <= 100; ++number)
        EXPECT_EQ(fill(queue, 1), number);
}

TEST(HandleQueueNumbers, ContinueAfterTheQueueWasEmptied) {
    Queue queue;
    fill(queue, 3);
    drain(queue, 3);
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.frontNumber(), 4U);
    EXPECT_EQ(fill(queue, 1), 4U);
}

TEST(HandleQueueNumbers, ContinueAfterAllWereDeletedAtOnce) {
    Queue queue;
    fill(queue, 30);
    queue.clear();
    EXPECT_EQ(queue.size(), 0U);
    EXPECT_EQ(fill(queue, 1), 31U);
}

TEST(HandleQueueNumbers, AreComparedAsSerialNumbers) {
    EXPECT_TRUE(serialAtOrAfter(5, 5));
    EXPECT_TRUE(serialAtOrAfter(6, 5));
    EXPECT_FALSE(serialAtOrAfter(5, 6));
    EXPECT_TRUE(serialAtOrAfter(0, 0xFFFFFFFF));
    EXPECT_FALSE(serialAtOrAfter(0xFFFFFFFF, 0));
    EXPECT_TRUE(serialAtOrAfter(0x7FFFFFFE, 0));
    EXPECT_FALSE(serialAtOrAfter(0x7FFFFFFF, 0));
}

TEST(HandleQueueNumbers, WrapWithinASegment) {
    Queue queue(0xFFFFFFFE);
    EXPECT_EQ(fill(queue, 4), 1U);
    EXPECT_EQ(queue.capacities(), Capacities{4});
    EXPECT_EQ(queue.frontNumber(), 0xFFFFFFFEU);
    for (const std::uint32_t number : {0xFFFFFFFEU, 0xFFFFFFFFU, 0U, 1U})
        EXPECT_TRUE(queue.has(number)) << number;
    EXPECT_EQ(queue.at(0xFFFFFFFF)->value, 1U);
    EXPECT_EQ(queue.at(0)->value, 2U);
    EXPECT_FALSE(queue.has(0xFFFFFFFD));
    EXPECT_FALSE(queue.has(2));
}

TEST(HandleQueueNumbers, WrapBetweenSegments) {
    Queue queue(0xFFFFFFFC);
    EXPECT_EQ(fill(queue, 5), 0U);
    EXPECT_EQ(queue.capacities(), (Capacities{4, 8}));
    EXPECT_EQ(queue.at(0xFFFFFFFC)->value, 0U);
    EXPECT_EQ(queue.at(0)->value, 4U);
    drain(queue, 4);
    EXPECT_EQ(queue.frontNumber(), 0U);
    EXPECT_FALSE(queue.has(0xFFFFFFFF));
    EXPECT_TRUE(queue.has(0));
}

TEST(HandleQueueNumbers, WrapInAnEmptyQueue) {
    Queue queue(0xFFFFFFFF);
    EXPECT_EQ(fill(queue, 1), 0xFFFFFFFFU);
    drain(queue, 1);
    EXPECT_EQ(queue.frontNumber(), 0U);
    EXPECT_FALSE(queue.has(0));
    EXPECT_EQ(fill(queue, 1), 0U);
}

// Segments.

TEST(HandleQueueSegments, NoneHasSlotsInAFreshQueue) {
    EXPECT_EQ(Queue().capacities(), Capacities{0});
}

TEST(HandleQueueSegments, TheFirstHasFourSlots) {
    Queue queue;
    fill(queue, 1);
    EXPECT_EQ(queue.capacities(), Capacities{4});
    fill(queue, 3);
    EXPECT_EQ(queue.capacities(), Capacities{4});
}

TEST(HandleQueueSegments, TheFifthElementLandsInANewOneOfEight) {
    Queue queue;
    fill(queue, 5);
    EXPECT_EQ(queue.capacities(), (Capacities{4, 8}));
}

TEST(HandleQueueSegments, ANewOneIsTheNextPowerOfTwoAboveTheElements) {
    Queue queue;
    fill(queue, 13);  // 12 elements when the third is made
    EXPECT_EQ(queue.capacities(), (Capacities{4, 8, 16}));
    drain(queue, 11);  // the first has gone, one element is left in the second
    EXPECT_EQ(queue.capacities(), (Capacities{8, 16}));
    drain(queue, 1);
    EXPECT_EQ(queue.capacities(), Capacities{16});
}

TEST(HandleQueueSegments, ANewOneCountsOnlyWhatIsStillInTheQueue) {
    Queue queue;
    fill(queue, 4);
    drain(queue, 2);
    fill(queue, 1);  // 2 elements when it is made
    EXPECT_EQ(queue.capacities(), (Capacities{4, 4}));
    fill(queue, 3);
    drain(queue, 3);
    fill(queue, 1);  // 3 elements
    EXPECT_EQ(queue.capacities(), (Capacities{4, 4}));
}

TEST(HandleQueueSegments, APowerOfTwoOfElementsGivesTheNextOne) {
    Queue queue;
    fill(queue, 4 + 8);
    drain(queue, 4);
    fill(queue, 1);  // 8 elements when it is made: strictly greater is 16
    EXPECT_EQ(queue.capacities(), (Capacities{8, 16}));
}

TEST(HandleQueueSegments, NoneIsLargerThan8192) {
    Queue queue;
    fill(queue, 4 + 8 + 16 + 32 + 64 + 128 + 256 + 512 + 1024 + 2048 + 4096 + 8192 + 1);
    const Capacities capacities = queue.capacities();
    ASSERT_EQ(capacities.size(), 13U);
    EXPECT_EQ(capacities[11], 8192U);
    EXPECT_EQ(capacities[12], 8192U);
    EXPECT_EQ(fill(queue, 8192), 16380U + 8193U);
    EXPECT_EQ(queue.capacities().back(), 8192U);
    EXPECT_EQ(queue.at(16380 + 8193), queue.backElement());
}

TEST(HandleQueueSegments, OneIsFreedWithItsLastElementEvenWithSlotsToSpare) {
    Queue queue;
    fill(queue, 2);
    drain(queue, 2);
    EXPECT_EQ(queue.capacities(), Capacities{0});
    fill(queue, 1);
    EXPECT_EQ(queue.capacities(), Capacities{4}) << "an emptied queue begins with four slots again";
}

TEST(HandleQueueSegments, LetGoOfElementsThatLeave) {
    Queue queue;
    const auto element = Brumo::make<Element>(1U);
    queue.enqueue(element);
    fill(queue, 1);
    queue.dequeue();
    EXPECT_EQ(element->users(), 1U);
}

TEST(HandleQueueSegments, LetGoOfAllElementsWithTheQueue) {
    const auto element = Brumo::make<Element>(1U);
    {
        Queue queue;
        for (int i = 0; i < 20; ++i)
            queue.enqueue(element);
        EXPECT_EQ(element->users(), 21U);
    }
    EXPECT_EQ(element->users(), 1U);
}

// Taking, looking.

TEST(HandleQueue, GivesElementsInTheOrderOfTheirComing) {
    Queue queue;
    fill(queue, 40);
    for (std::uint64_t i = 0; i < 40; ++i)
        EXPECT_EQ(queue.dequeue()->value, i);
}

TEST(HandleQueue, GivesNullWhenEmptyAndChangesNothing) {
    Queue queue;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(queue.dequeue(), nullptr);
        EXPECT_EQ(queue.capacities(), Capacities{0});
    }
    EXPECT_EQ(queue.frontElement(), nullptr);
    EXPECT_EQ(queue.backElement(), nullptr);
    EXPECT_EQ(fill(queue, 1), 1U);
}

TEST(HandleQueue, ShowsFrontAndBack) {
    Queue queue;
    fill(queue, 6);
    queue.dequeue();
    EXPECT_EQ(queue.frontElement()->value, 1U);
    EXPECT_EQ(queue.backElement()->value, 5U);
}

TEST(HandleQueue, HasExactlyTheNumbersFromFrontToBack) {
    Queue queue;
    fill(queue, 20);
    drain(queue, 6);
    for (const std::uint32_t number : {0U, 1U, 6U, 21U, 22U, 0x7FFFFFFFU, 0x80000000U, ~0U}) {
        EXPECT_FALSE(queue.has(number)) << number;
        EXPECT_EQ(queue.at(number), nullptr) << number;
    }
    for (std::uint32_t number = 7; number <= 20; ++number) {
        EXPECT_TRUE(queue.has(number)) << number;
        ASSERT_NE(queue.at(number), nullptr) << number;
        EXPECT_EQ(queue.at(number)->value, number - 1);
    }
}

TEST(HandleQueue, HasNothingWhenEmpty) {
    Queue queue;
    fill(queue, 4);
    drain(queue, 4);
    for (std::uint32_t number = 0; number < 10; ++number) {
        EXPECT_FALSE(queue.has(number));
        EXPECT_EQ(queue.at(number), nullptr);
    }
}

/// A queue beside a deque and a count, compared after each step.
class ComparedQueue {
public:
    explicit ComparedQueue(std::uint32_t firstNumber) : queue_(firstNumber), next_(firstNumber) {}

    void enqueue() {
        const auto element = Brumo::make<Element>(made_++);
        expected_.push_back(element);
        ASSERT_EQ(queue_.enqueue(element), next_++);
    }
    void dequeue() {
        const auto element = queue_.dequeue();
        if (expected_.empty()) {
            ASSERT_EQ(element, nullptr);
            return;
        }
        ASSERT_EQ(element, expected_.front());
        expected_.pop_front();
    }
    void clear() {
        queue_.clear();
        expected_.clear();
    }
    void compare(std::uint32_t probe) const {
        const std::uint32_t front = next_ - static_cast<std::uint32_t>(expected_.size());
        ASSERT_EQ(queue_.size(), expected_.size());
        ASSERT_EQ(queue_.empty(), expected_.empty());
        ASSERT_EQ(queue_.frontNumber(), front);
        ASSERT_EQ(queue_.frontElement(), expected_.empty() ? nullptr : expected_.front());
        ASSERT_EQ(queue_.backElement(), expected_.empty() ? nullptr : expected_.back());
        const std::uint32_t number = front + probe % 4096 - 1024;
        const bool has = number - front < expected_.size();
        ASSERT_EQ(queue_.has(number), has);
        ASSERT_EQ(queue_.at(number), has ? expected_[number - front] : nullptr);
        const Capacities capacities = queue_.capacities();
        for (const std::size_t capacity : capacities) {
            if (capacity == 0) {
                ASSERT_TRUE(expected_.empty() && capacities.size() == 1);
                continue;
            }
            ASSERT_TRUE((capacity & (capacity - 1)) == 0 && capacity >= 4 && capacity <= 8192);
        }
    }

private:
    Queue queue_;
    std::deque<Brumo::Ptr<Element>> expected_;
    std::uint32_t next_;
    std::uint64_t made_ = 0;
};

/// Random steps in phases that grow, shrink or hold the queue.
class HandleQueueAgainstADeque : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(HandleQueueAgainstADeque, DoesTheSame) {
    for (std::uint32_t seed = 0; seed < 8; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 engine(seed);
        const auto random = [&] { return static_cast<std::uint32_t>(engine()); };
        ComparedQueue compared(GetParam());
        unsigned likelihood = 50;
        for (int step = 0; step < 6000; ++step) {
            if (step % 500 == 0)
                likelihood = 20 + random() % 61;
            const unsigned choice = random() % 100;
            if (random() % 3000 == 0) {
                compared.clear();
            } else if (choice < likelihood) {
                compared.enqueue();
            } else {
                compared.dequeue();
            }
            ASSERT_NO_FATAL_FAILURE(compared.compare(random()));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(FromNumber, HandleQueueAgainstADeque,
                         ::testing::Values(1U, 0U, 0xFFFFFFFFU, 0xFFFFFF00U, 0x7FFFFF80U,
                                           0x80000000U));

// Broken invariants.

class HandleQueueDeathTest : public ::testing::Test {
protected:
    HandleQueueDeathTest() { TestSupport::withoutCoreFiles(); }
};

TEST_F(HandleQueueDeathTest, ASegmentsCapacityIsAPowerOfTwo) {
    EXPECT_DEATH(Queue::Segment(1, 3), ::testing::HasSubstr("isPowerOfTwo( i )"));
    EXPECT_DEATH(Queue::Segment(1, 8191), ::testing::HasSubstr("isPowerOfTwo( i )"));
    EXPECT_EQ(Queue::Segment(1, 8192).slots.size(), 8192U);
    EXPECT_EQ(Queue::Segment(1, 0).slots.size(), 0U);
}

TEST_F(HandleQueueDeathTest, ASegmentIsNotFreedWhileItIsLinked) {
    const auto freeLinked = [] {
        Queue::Segment segment(1, 4);
        segment.successor = &segment;
    };
    EXPECT_DEATH(freeLinked(), ::testing::HasSubstr("!linked()"));
}

}  // namespace
