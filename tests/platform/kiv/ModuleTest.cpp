#include <gtest/gtest.h>

#include <algorithm>

#include "platform/kiv/EventLoop.h"
#include "platform/kiv/Module.h"

namespace {

using Kiv::Module;
using Kiv::ModuleRegistration;
using Kiv::ModuleRegistry;

int seven() {
    return 7;
}

TEST(ModuleRegistryTest, KnowsAModuleWhileItsRegistrationLives) {
    {
        const ModuleRegistration registration(
            Module{"Test::Module", {{"Test::Class", {"one", "two"}}}, &seven});
        const Module* found = ModuleRegistry::instance().module("Test::Module");
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->types.at(0).attributes.at(1), "two");
        const auto names = ModuleRegistry::instance().moduleNames();
        EXPECT_EQ(std::count(names.begin(), names.end(), "Test::Module"), 1);
    }
    EXPECT_EQ(ModuleRegistry::instance().module("Test::Module"), nullptr);
}

TEST(ModuleRegistryTest, GivesAFactoryOnlyAsTheTypeThatItIs) {
    const ModuleRegistration registration(Module{"Test::Module", {}, &seven});
    const ModuleRegistration without(Module{"Test::Without", {}, {}});
    const auto& registry = ModuleRegistry::instance();
    const auto factory = registry.factory<int (*)()>("Test::Module");
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(factory(), 7);
    EXPECT_EQ(registry.factory<long (*)()>("Test::Module"), nullptr);
    EXPECT_EQ(registry.factory<int (*)()>("Test::Without"), nullptr);
    EXPECT_EQ(registry.factory<int (*)()>("Test::Nobody"), nullptr);
}

TEST(ModuleRegistryDeathTest, EndsTheProcessWhenANameIsRegisteredTwice) {
    const ModuleRegistration registration(Module{"Test::Module", {}, {}});
    EXPECT_DEATH(ModuleRegistration(Module{"Test::Module", {}, {}}),
                 "module registered once: Test::Module");
}

TEST(ManualEventLoopTest, RunsWhatWasPostedBeforeTheTurnInOrder) {
    Kiv::ManualEventLoop loop;
    std::vector<int> ran;
    loop.post([&] {
        ran.push_back(1);
        loop.post([&] { ran.push_back(3); });
    });
    loop.post([&] { ran.push_back(2); });
    EXPECT_TRUE(ran.empty());
    EXPECT_EQ(loop.turn(), 2U);
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
    EXPECT_FALSE(loop.idle());
    EXPECT_TRUE(loop.runUntilIdle());
    EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(loop.turn(), 0U);
}

TEST(ManualEventLoopTest, GivesUpOnWorkThatNeverEnds) {
    Kiv::ManualEventLoop loop;
    int turns = 0;
    std::function<void()> again = [&] {
        ++turns;
        loop.post(again);
    };
    loop.post(again);
    EXPECT_FALSE(loop.runUntilIdle(10));
    EXPECT_EQ(turns, 10);
    loop.clear();
    EXPECT_TRUE(loop.idle());
}

TEST(EntityTest, HasAClassEvenWhenItTellsNone) {
    const auto entity = Brumo::make<Kiv::Entity>();
    EXPECT_EQ(entity->typeData().name, "Kiv::Entity");
    EXPECT_TRUE(entity->typeData().attributes.empty());
}

TEST(EntityTest, NamesTheAttributeInItsErrors) {
    EXPECT_STREQ(Kiv::NullArgumentError("entryUsageSm").what(),
                 "null argument for attribute entryUsageSm");
    EXPECT_STREQ(Kiv::ReinstantiationError("entryUsageSm").what(),
                 "re-instantiation in attribute entryUsageSm");
}

}  // namespace
