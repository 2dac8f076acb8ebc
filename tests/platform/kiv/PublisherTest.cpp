#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>

#include "platform/kiv/Entity.h"

namespace {

using Kiv::Change;
using Kiv::Publisher;
using Kiv::Subscription;

TEST(PublisherTest, TellsObserversWhatHasChanged) {
    const Publisher publisher;
    publisher.publish(1);
    int old = 0;
    Kiv::AttributeId attribute = 0;
    const auto subscription = publisher.subscribe([&](const Change& change) {
        attribute = change.attribute;
        old = change.oldAs<int>();
    });
    const int before = 42;
    publisher.publish(7, &before);
    EXPECT_EQ(attribute, 7U);
    EXPECT_EQ(old, 42);
}

TEST(PublisherTest, CallsNobodyAfterAReset) {
    const Publisher publisher;
    int calls = 0;
    auto subscription = publisher.subscribe([&](const Change&) { ++calls; });
    EXPECT_TRUE(subscription.active());
    EXPECT_EQ(publisher.observers(), 1U);
    subscription.reset();
    EXPECT_FALSE(subscription.active());
    EXPECT_EQ(publisher.observers(), 0U);
    publisher.publish(1);
    EXPECT_EQ(calls, 0);
    subscription.reset();
}

TEST(PublisherTest, MovesASubscriptionAndEndsTheOneBefore) {
    const Publisher publisher;
    int first = 0;
    int second = 0;
    auto kept = publisher.subscribe([&](const Change&) { ++first; });
    kept = publisher.subscribe([&](const Change&) { ++second; });
    EXPECT_EQ(publisher.observers(), 1U);
    publisher.publish(1);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
}

TEST(PublisherTest, LetsAnObserverLeaveAndTakeOthersAlongDuringANotification) {
    const Publisher publisher;
    Subscription first;
    Subscription second;
    int firstCalls = 0;
    int secondCalls = 0;
    int lastCalls = 0;
    first = publisher.subscribe([&](const Change&) {
        ++firstCalls;
        first.reset();
        second.reset();
    });
    second = publisher.subscribe([&](const Change&) { ++secondCalls; });
    const auto last = publisher.subscribe([&](const Change&) { ++lastCalls; });
    publisher.publish(1);
    publisher.publish(1);
    EXPECT_EQ(firstCalls, 1);
    EXPECT_EQ(secondCalls, 0) << "reset before it was called";
    EXPECT_EQ(lastCalls, 2);
    EXPECT_EQ(publisher.observers(), 1U);
}

TEST(PublisherTest, ShowsANewObserverOnlyLaterNotifications) {
    const Publisher publisher;
    std::vector<Subscription> added;
    int calls = 0;
    const auto subscription = publisher.subscribe([&](const Change&) {
        for (int i = 0; i < 100; ++i)
            added.push_back(publisher.subscribe([&](const Change&) { ++calls; }));
    });
    publisher.publish(1);
    EXPECT_EQ(calls, 0);
    publisher.publish(1);
    EXPECT_EQ(calls, 100);
}

TEST(PublisherTest, MayEndDuringItsOwnNotification) {
    auto publisher = std::make_unique<Publisher>();
    int later = 0;
    const auto first = publisher->subscribe([&](const Change&) { publisher = nullptr; });
    const auto second = publisher->subscribe([&](const Change&) { ++later; });
    publisher->publish(1);
    EXPECT_EQ(publisher, nullptr);
    EXPECT_EQ(later, 1) << "those who were there are told";
}

TEST(PublisherTest, MayPublishAgainDuringANotification) {
    const Publisher publisher;
    std::vector<Kiv::AttributeId> seen;
    std::optional<Subscription> gone;
    gone = publisher.subscribe([&](const Change& change) {
        if (change.attribute == 1) {
            publisher.publish(2);
            gone.reset();
        }
    });
    const auto observer =
        publisher.subscribe([&](const Change& change) { seen.push_back(change.attribute); });
    publisher.publish(1);
    EXPECT_EQ(seen, (std::vector<Kiv::AttributeId>{2, 1}));
}

TEST(PublisherTest, PassesAnObserversErrorOnAndStaysWhole) {
    const Publisher publisher;
    bool fails = true;
    int calls = 0;
    const auto first = publisher.subscribe([&](const Change&) {
        if (fails)
            throw std::runtime_error("observer");
    });
    auto second = publisher.subscribe([&](const Change&) { ++calls; });
    EXPECT_THROW(publisher.publish(1), std::runtime_error);
    EXPECT_EQ(calls, 0);
    fails = false;
    publisher.publish(1);
    EXPECT_EQ(calls, 1);
    second.reset();
    EXPECT_EQ(publisher.observers(), 1U);
}

TEST(PublisherTest, OutlivesNoSubscriptionThatOutlivesIt) {
    Subscription subscription;
    {
        const Publisher publisher;
        subscription = publisher.subscribe([](const Change&) {});
    }
    EXPECT_TRUE(subscription.active());
    subscription.reset();
    EXPECT_FALSE(subscription.active());
}

}  // namespace
