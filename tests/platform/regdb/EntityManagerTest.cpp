#include "platform/regdb/EntityManager.h"

#include <gtest/gtest.h>

namespace Regdb::Test {
namespace {

class Child final : public Kiv::Entity {
public:
    void handleParent() override { ++parents; }

    int parents = 0;
};

TEST(RegdbEntityManager, FindsEntitiesByPath) {
    EntityManager manager("system", true);
    const auto child = Brumo::make<Child>();
    EXPECT_EQ(manager.entity("a/b"), nullptr);
    manager.entityIs("a/b", child);
    EXPECT_EQ(manager.entity("a/b").get(), child.get());
    EXPECT_EQ(manager.entity("a"), nullptr);
    EXPECT_EQ(child->parents, 1);
    EXPECT_EQ(manager.systemName(), "system");
    EXPECT_TRUE(manager.local());
}

TEST(RegdbEntityManager, ReplacesAndRemoves) {
    EntityManager manager("system", false);
    manager.entityIs("a", Brumo::make<Child>());
    const auto second = Brumo::make<Child>();
    manager.entityIs("a", second);
    EXPECT_EQ(manager.entity("a").get(), second.get());
    manager.entityIs("a", nullptr);
    manager.entityIs("never there", nullptr);
    EXPECT_EQ(manager.entity("a"), nullptr);
    EXPECT_EQ(second->users(), 1U);
}

}  // namespace
}  // namespace Regdb::Test
