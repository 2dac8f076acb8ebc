// The mount of a map whose slots are whole: what is taken up as it stands, and what is made again.
#include <cstddef>
#include <fstream>
#include <iterator>
#include <random>

#include "platform/kivshimo/MapReader.h"
#include "tests/platform/kivshimo/Fixture.h"

namespace KivShimo::Test {
namespace {

constexpr std::uint64_t kItemSlots = 32;

class MapMount : public ShimoTest {
protected:
    MapMount() {
        table_ = items(kItemSlots);
        for (std::uint32_t id = 0; id < 24; ++id)
            table_->items.insertOrReplace(item(id % 3 * 97 + id, id));  // some of one hash
        for (const std::uint32_t id : {4U, 8U})
            table_->items.erase(item(id % 3 * 97 + id, 0).key());
        seed_ = detail::mixed(table_->identity(), 1);
        values_ = values();
    }

    std::vector<Item> values() const {
        std::vector<Item> result;
        table_->items.forEach([&](const Item& value) { result.push_back(value); });
        return result;
    }
    void unmount() {
        table_ = nullptr;
        restart();
    }
    /// Mounts what was unmounted: the values are those of before, whatever readers followed.
    void expectAllThere() {
        table_ = items(kItemSlots);
        EXPECT_EQ(values(), values_);
        EXPECT_EQ(table_->items.count(), values_.size());
        table_->items.assertConsistent();
    }
    void headIs(std::uint64_t bucket, std::uint32_t target) const {
        overwrite(itemsFile(), detail::kAreasOffset + 8 * bucket,
                  detail::Link::encoded(target, detail::Link::headPlace(seed_, bucket)));
    }
    void linkIs(std::uint64_t slot, std::uint32_t target) const {
        overwrite(itemsFile(), itemSlotOffset(kItemSlots, slot) + 16,
                  detail::Link::encoded(target, detail::Link::slotPlace(seed_, slot)));
    }
    /// All that readers go by, as it stands in the file.
    std::string content() const {
        std::ifstream in(itemsFile(), std::ios::binary);
        std::string bytes{std::istreambuf_iterator<char>(in), {}};
        bytes.erase(0, detail::kDynamicOffset + offsetof(detail::DynamicHeader, structure));
        return bytes;
    }

    Brumo::Ptr<ItemTable> table_;
    std::uint64_t seed_ = 0;
    std::vector<Item> values_;
};

TEST_F(MapMount, StoresNothingIntoAMapThatWasLeftWhole) {
    const std::string before = content();
    unmount();
    expectAllThere();
    EXPECT_EQ(content(), before);
    EXPECT_EQ(table_->corruptions(), 0U);
}

TEST_F(MapMount, TakesUpWhatAChangeAfterItNeeds) {
    unmount();
    expectAllThere();
    for (const Item& value : values_)
        EXPECT_TRUE(table_->items.erase(value.key()));
    table_->items.assertConsistent();
    for (std::uint32_t id = 0; id < kItemSlots; ++id)
        EXPECT_TRUE(table_->items.insertOrReplace(item(id, id)));
    EXPECT_FALSE(table_->items.insertOrReplace(item(kItemSlots, 0)));
    table_->items.assertConsistent();
}

TEST_F(MapMount, LeadsReadersToAValueThatTheyPassedOver) {
    unmount();
    for (std::uint64_t bucket = 0; bucket < detail::mapBuckets(kItemSlots); ++bucket)
        headIs(bucket, detail::Link::kNone);
    expectAllThere();
    const MapReader<Item> reader(itemsFile(), kItemType, "items");
    for (const Item& value : values_)
        EXPECT_EQ(reader.find(value.key()), value);
}

TEST_F(MapMount, MakesLinksAgainThatVerifyAndLeadAnywhere) {
    std::mt19937 random(1);
    const auto anywhere = [&] {
        const auto target = static_cast<std::uint32_t>(random() % (kItemSlots + 3));
        return target <= kItemSlots ? target : detail::Link::kNone - target % 2;
    };
    for (int round = 0; round < 300; ++round) {
        unmount();
        for (auto count = random() % 3; count > 0; --count)
            headIs(random() % detail::mapBuckets(kItemSlots), anywhere());
        for (auto count = random() % 3; count > 0; --count)
            linkIs(random() % kItemSlots, anywhere());
        expectAllThere();
        ASSERT_FALSE(HasFailure()) << "round " << round;
    }
}

}  // namespace
}  // namespace KivShimo::Test
