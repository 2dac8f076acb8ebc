#include <gtest/gtest.h>

#include <thread>
#include <type_traits>

#include "platform/brumo/Ptr.h"
#include "platform/brumo/Text.h"
#include "platform/brumo/Unaligned.h"

namespace {

using Brumo::make;
using Brumo::Ptr;

class Base : public Brumo::RefCounted {
public:
    explicit Base(int* ended = nullptr) : ended_(ended) {}
    ~Base() override {
        if (ended_ != nullptr)
            ++*ended_;
    }
    std::string toText() const { return "base"; }

private:
    int* ended_;
};
class Derived final : public Base {
    using Base::Base;
};
class Other final : public Base {
    using Base::Base;
};

/// Hands out a pointer to itself while it is made.
class SelfAware final : public Brumo::RefCounted {
public:
    SelfAware() { const Ptr<SelfAware> self(this); }
};

/// Is kept by its pool instead of ending.
class Pooled final : public Brumo::RefCounted {
public:
    explicit Pooled(int& returned) : returned_(returned) {}

protected:
    void lastUserGone() const override {
        ++returned_;
        RefCounted::lastUserGone();
    }

private:
    int& returned_;
};

TEST(PtrTest, EndsTheObjectWithItsLastPointer) {
    int ended = 0;
    {
        const auto first = make<Base>(&ended);
        EXPECT_EQ(first->users(), 1U);
        {
            const Ptr<Base> second = first;
            EXPECT_EQ(first->users(), 2U);
        }
        EXPECT_EQ(first->users(), 1U);
        EXPECT_EQ(ended, 0);
    }
    EXPECT_EQ(ended, 1);
}

TEST(PtrTest, MovesWithoutCounting) {
    auto first = make<Base>();
    const Ptr<Base> second = std::move(first);
    EXPECT_EQ(first, nullptr);  // NOLINT(bugprone-use-after-move): null is what it must be
    EXPECT_EQ(second->users(), 1U);
}

TEST(PtrTest, ConvertsToBasesAndToConst) {
    const auto derived = make<Derived>();
    const Ptr<Base> base = derived;
    const Ptr<const Base> constant = base;
    EXPECT_EQ(derived->users(), 3U);
    EXPECT_EQ(Brumo::staticCast<Derived>(base), derived);
    EXPECT_EQ(Brumo::dynamicCast<Derived>(base), derived);
    EXPECT_EQ(Brumo::dynamicCast<Other>(base), nullptr);
    EXPECT_EQ(derived->users(), 3U);
    static_assert(!std::is_convertible_v<Ptr<Base>, Ptr<Derived>>);
    static_assert(!std::is_convertible_v<Ptr<const Base>, Ptr<Base>>);
    static_assert(!std::is_convertible_v<Base*, Ptr<Base>>);
}

TEST(PtrTest, MovesIntoAPointerToABaseWithoutCounting) {
    auto derived = make<Derived>();
    const Ptr<Base> base = std::move(derived);
    EXPECT_EQ(derived, nullptr);  // NOLINT(bugprone-use-after-move): null is what it must be
    EXPECT_EQ(base->users(), 1U);
}

TEST(PtrTest, IsAssignedToItselfWithoutHarm) {
    int ended = 0;
    auto pointer = make<Base>(&ended);
    const auto& same = pointer;
    pointer = same;
    EXPECT_EQ(pointer->users(), 1U);
    EXPECT_EQ(ended, 0);
    pointer = nullptr;
    EXPECT_EQ(ended, 1);
}

TEST(PtrTest, GivesItsReferenceUpAndTakesItOver) {
    int ended = 0;
    auto pointer = make<Base>(&ended);
    Base* raw = pointer.detach();
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(raw->users(), 1U);
    pointer = Ptr<Base>::adopt(raw);
    EXPECT_EQ(pointer->users(), 1U);
    pointer = nullptr;
    EXPECT_EQ(ended, 1);
}

TEST(PtrTest, LetsAnObjectUnderConstructionHandItselfOut) {
    EXPECT_EQ(make<SelfAware>()->users(), 1U);
}

TEST(PtrTest, AsksTheObjectWhenItsLastUserHasGone) {
    int returned = 0;
    auto pointer = make<Pooled>(returned);
    auto copy = pointer;
    pointer = nullptr;
    EXPECT_EQ(returned, 0);
    copy = nullptr;
    EXPECT_EQ(returned, 1);
}

TEST(PtrTest, PrintsWhatItPointsAt) {
    EXPECT_EQ(fmt::format("{}", make<Base>()), "base");
    EXPECT_EQ(fmt::format("{}", Ptr<const Base>()), "null");
}

TEST(PtrTest, CountsForSeveralThreadsWhenTold) {
    Brumo::ThreadControl::multiThreadedIs(true);
    int ended = 0;
    {
        const auto shared = make<Base>(&ended);
        const auto copyOften = [&shared] {
            for (int i = 0; i < 50000; ++i)
                const Ptr<Base> copy = shared;
        };
        std::thread first(copyOften);
        std::thread second(copyOften);
        first.join();
        second.join();
        EXPECT_EQ(shared->users(), 1U);
    }
    EXPECT_EQ(ended, 1);
    Brumo::ThreadControl::multiThreadedIs(false);
    EXPECT_FALSE(Brumo::ThreadControl::multiThreaded());
}

TEST(UnalignedTest, HasAlignmentOneAndTheValuesBytes) {
    struct Packed {
        std::uint8_t first;
        Brumo::Unaligned<std::uint64_t> second;
    };
    static_assert(sizeof(Packed) == 9);
    static_assert(alignof(Packed) == 1);
    Packed packed{1, 0x0102030405060708ULL};
    EXPECT_EQ(packed.second.get(), 0x0102030405060708ULL);
    packed.second = 5U;
    const std::uint64_t converted = packed.second;
    EXPECT_EQ(converted, 5U);
}

TEST(UnalignedTest, ComparesAndStartsAsTheValueDoes) {
    using Brumo::Unaligned;
    EXPECT_EQ(Unaligned<int>{}.get(), 0);
    EXPECT_TRUE(Unaligned<int>(3) == Unaligned<int>(3));
    EXPECT_FALSE(Unaligned<int>(3) == Unaligned<int>(4));
    constexpr Unaligned<std::uint16_t> kAtCompileTime = std::uint16_t{7};
    static_assert(kAtCompileTime.get() == 7);
}

}  // namespace
