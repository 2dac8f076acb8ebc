#include <sys/stat.h>
#include <fstream>

#include "platform/brumo/Trace.h"
#include "platform/kivshimo/MapReader.h"
#include "tests/platform/kivshimo/Fixture.h"
#include "tests/support/TempDir.h"

namespace KivShimo::Test {
namespace {

namespace fs = std::filesystem;
using Reader = MapReader<Item>;

class MountTest : public ShimoTest {
protected:
    static std::string messageOf(const std::function<void()>& action) {
        try {
            action();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "no exception";
    }
    static void expectInMessage(const std::function<void()>& action, const std::string& part) {
        const std::string text = messageOf(action);
        EXPECT_NE(text.find(part), std::string::npos) << text;
    }
    bool wiped() { return items()->collectionControl().wiped(); }
    void leaveOneItem() {
        items()->items.insertOrReplace(item(1, 1));
        restart();
    }
};

TEST_F(MountTest, FirstStartIsNotWiped) {
    const auto table = items();
    EXPECT_FALSE(table->collectionControl().wiped());
    EXPECT_EQ(table->collectionControl().scratchpad(), 0U);
    EXPECT_EQ(table->path(), "items/1");
    EXPECT_EQ(table->file(), itemsFile());
}

TEST_F(MountTest, MountingAgainGivesTheSameTable) {
    const auto table = items();
    EXPECT_EQ(items().get(), table.get());
    EXPECT_EQ(manager_->entity("/items/1").get(), table.get());
    EXPECT_EQ(manager_->entity("items/2"), nullptr);
    EXPECT_EQ(EntityManager::get(kSystem, true).get(), manager_);
}

TEST_F(MountTest, ContentSurvivesARestart) {
    leaveOneItem();
    const auto table = items();
    EXPECT_FALSE(table->collectionControl().wiped());
    EXPECT_EQ(table->items.find(item(1, 0).key()), item(1, 1));
}

TEST_F(MountTest, LostFileIsWipedUntilCleared) {
    leaveOneItem();
    fs::remove(itemsFile());
    EXPECT_TRUE(wiped());
    restart();
    EXPECT_TRUE(wiped());
    EXPECT_EQ(items()->items.count(), 0U);
    items()->collectionControl().clearWiped();
    EXPECT_FALSE(wiped());
    restart();
    EXPECT_FALSE(wiped());
}

TEST_F(MountTest, DamagedHeaderIsKeptAsideAndWiped) {
    for (const std::uint64_t offset : {0U, 8U, 24U, 60U, 200U, 950U}) {
        items()->collectionControl().clearWiped();
        restart();
        flip(itemsFile(), offset);
        EXPECT_TRUE(wiped()) << offset;
        EXPECT_TRUE(fs::exists(itemsFile() + ".damaged-1"));
    }
    std::size_t kept = 0;
    for (const auto& entry : fs::directory_iterator(root_ + "/items")) {
        if (entry.path().string().find(".damaged-") != std::string::npos)
            ++kept;
    }
    EXPECT_EQ(kept, 3U);
    EXPECT_EQ(manager_->entitiesBelow(""), std::vector<std::string>{"items/1"});
}

TEST_F(MountTest, TruncatedFileIsWipedAndNeverMapped) {
    leaveOneItem();
    fs::resize_file(itemsFile(), 5000);
    expectInMessage([&] { Reader(itemsFile(), kItemType, "items"); }, "shorter than its header");
    EXPECT_TRUE(wiped());
    restart();
    items()->collectionControl().clearWiped();
    restart();
    fs::resize_file(itemsFile(), fs::file_size(itemsFile()) - 4096);
    expectInMessage([&] { Reader(itemsFile(), kItemType, "items"); }, "bytes long");
    EXPECT_TRUE(wiped());
}

TEST_F(MountTest, EmptyFileIsWiped) {
    leaveOneItem();
    fs::resize_file(itemsFile(), 0);
    EXPECT_TRUE(wiped());
}

TEST_F(MountTest, OtherCapacityIsAnotherLayout) {
    leaveOneItem();
    EXPECT_TRUE(items(128)->collectionControl().wiped());
}

TEST_F(MountTest, OtherCapacityKeepsTheOldFileAsideAndSaysWhy) {
    leaveOneItem();
    const Reader reader(itemsFile(), kItemType, "items");
    std::string reports;
    const std::string filter = Brumo::traceFilter();
    Brumo::traceFilterIs("*/1");
    const Brumo::TraceSink before =
        Brumo::traceSinkIs([&](const Brumo::TraceRecord& record) { reports += record.text; });
    const auto table = items(128);
    Brumo::traceSinkIs(before);
    Brumo::traceFilterIs(filter);
    EXPECT_TRUE(table->collectionControl().wiped());
    EXPECT_NE(reports.find(itemsFile() + ": content lost: with room for 64 in collection items, "
                                         "not 128, kept aside as 1.table.damaged-1"),
              std::string::npos)
        << reports;
    EXPECT_TRUE(reader.stale());
    EXPECT_EQ(Reader(itemsFile() + ".damaged-1", kItemType, "items").find(item(1, 0).key()),
              item(1, 1));
    EXPECT_EQ(table->items.count(), 0U);
    EXPECT_EQ(table->items.capacity(), 128U);
}

TEST_F(MountTest, DamagedManifestStillSaysThatTheTableExisted) {
    leaveOneItem();
    const std::string manifest = itemsFile() + ".manifest";
    for (std::uint64_t bit = 0; bit < fs::file_size(manifest) * 8; ++bit) {
        flip(manifest, bit / 8, bit % 8);
        fs::remove(itemsFile());
        EXPECT_TRUE(wiped()) << bit;
        restart();
    }
}

TEST_F(MountTest, MarkWithAFewWrongBitsCountsAsTheNearerOneAndAsCorruption) {
    const std::uint64_t mark = detail::kDynamicOffset + offsetof(detail::DynamicHeader, wiped);
    leaveOneItem();
    for (const bool lost : {false, true}) {
        for (std::uint64_t bit = 0; bit < 64; ++bit) {
            overwrite(itemsFile(), mark, lost ? detail::kWiped : detail::kNotWiped);
            flip(itemsFile(), mark + bit / 8, bit % 8);
            flip(itemsFile(), mark + (bit / 8 + 3) % 8, bit % 8);
            EXPECT_EQ(Reader(itemsFile(), kItemType, "items").wiped(), lost) << bit;
            auto table = items();
            EXPECT_EQ(table->collectionControl().wiped(), lost) << bit;
            EXPECT_EQ(table->corruptions(), 1U) << bit;
            EXPECT_EQ(table->items.count(), 1U);
            table = nullptr;
            restart();
            EXPECT_EQ(items()->corruptions(), 0U) << "it was put right";
            restart();
        }
    }
}

TEST_F(MountTest, FolderThatOthersMayWriteToIsRefused) {
    leaveOneItem();
    for (const std::string& folder : {root_, root_ + "/items"}) {
        ASSERT_EQ(chmod(folder.c_str(), 01777), 0);
        expectInMessage([this] { items(); },
                        folder + ": check folder: others may write to it: mode 1777");
        ASSERT_EQ(chmod(folder.c_str(), 0770), 0);
        restart();
        EXPECT_EQ(items()->items.count(), 1U);
        restart();
    }
}

TEST_F(MountTest, ReaderFollowsNoLinkBelowTheRoot) {
    items(8, "group/unit/1")->items.insertOrReplace(item(1, 1));
    restart();
    const std::string file = tableFile(root_, "group/unit/1");
    const TestSupport::TempDir elsewhere;
    const std::string moved = elsewhere.file("moved");
    for (const std::string& folder : {root_ + "/group", root_ + "/group/unit"}) {
        EXPECT_NO_THROW(Reader(file, kItemType, "items"));
        fs::copy(folder, moved, fs::copy_options::recursive);
        fs::rename(folder, folder + ".before");
        fs::create_directory_symlink(moved, folder);
        expectInMessage([&] { Reader(file, kItemType, "items"); }, folder + ": open folder: ");
        fs::remove(folder);
        fs::rename(folder + ".before", folder);
        fs::remove_all(moved);
    }
    const std::string root = elsewhere.file("root");
    fs::create_directory_symlink(root_, root);
    EXPECT_EQ(Reader(tableFile(root, "group/unit/1"), kItemType, "items").find(item(1, 0).key()),
              item(1, 1))
        << "the root itself may lie behind links";
}

TEST_F(MountTest, HalfMadeFileIsNeverMounted) {
    fs::create_directories(root_ + "/items");
    std::ofstream(itemsFile() + ".new") << "half";
    EXPECT_FALSE(wiped());
    EXPECT_FALSE(fs::exists(itemsFile() + ".new"));
}

TEST_F(MountTest, SecondWriterIsToldTheHoldersPid) {
    const auto table = items();
    const std::string pid = std::to_string(getpid());
    EXPECT_TRUE(inOtherProcess([&] {
        // A fork shares the lock; another process would open the file itself, as this does.
        EntityManager other(root_);
        MountInfo info(0);
        info.collectionIs({"items", 64, 0});
        other.mountGroup()->mountIs("items/1", kItemType, info);
        try {
            other.mountGroup()->close();
        } catch (const DuplicateWriterError& error) {
            return error.holderPid() == static_cast<std::uint64_t>(getppid()) &&
                   std::string(error.what()).find(pid) != std::string::npos;
        }
        return false;
    }));
}

TEST_F(MountTest, LockGoesWithTheProcess) {
    inKilledProcess([&] { items()->items.insertOrReplace(item(1, 1)); });
    EXPECT_EQ(items()->items.count(), 1U);
}

TEST_F(MountTest, DeletedEntityIsUnmountedWithItsLastUser) {
    auto table = items();
    manager_->entityDel("items/1");
    EXPECT_EQ(manager_->entity("items/1"), nullptr);
    EXPECT_THROW(items(), DuplicateWriterError);
    table = nullptr;
    EXPECT_NE(items(), nullptr);
}

TEST_F(MountTest, RefusesWhatCannotBeMounted) {
    const auto mount = [this](const char* path, const char* type, const char* collection,
                              std::uint64_t capacity, int mountType) {
        return [=, this] {
            MountInfo info(mountType);
            info.collectionIs({collection, capacity, 0});
            manager_->mountGroup()->mountIs(path, type, info);
            manager_->mountGroup()->close();
        };
    };
    expectInMessage(mount("a", "Nobody's", "items", 1, 0), "unknown table type Nobody's");
    expectInMessage(mount("a", kItemType, "others", 1, 0), "no capacity declared");
    expectInMessage(mount("a", kItemType, "items", 0, 0), "no capacity declared");
    expectInMessage(mount("a", kItemType, "items", ~std::uint64_t{0}, 0), "impossible capacity");
    expectInMessage(mount("a", kItemType, "items", 1, 7), "unknown mount type");
    for (const char* path : {"", "/", "a//b", "../a", "a/./b", "a/"}) {
        expectInMessage(mount(path, kItemType, "items", 1, 0), "not a path of a table");
    }
    items();
    expectInMessage(mount("items/1", kChangeType, "changes", 1, 0), "type Test::ItemTable");
}

TEST_F(MountTest, FailedMountDropsWhatWasCollected) {
    manager_->mountGroup()->mountIs("a", "Nobody's", MountInfo(0));
    EXPECT_THROW(manager_->mountGroup()->close(), MountError);
    EXPECT_NO_THROW(manager_->mountGroup()->close());
}

TEST_F(MountTest, FollowsNoLinksBelowTheRoot) {
    fs::create_directories(root_ + "/elsewhere");
    fs::create_directory_symlink(root_ + "/elsewhere", root_ + "/items");
    EXPECT_THROW(items(), MountError);
    fs::remove(root_ + "/items");
    fs::create_directories(root_ + "/items");
    std::ofstream(root_ + "/victim") << "precious";
    fs::create_symlink(root_ + "/victim", itemsFile());
    EXPECT_THROW(items(), MountError);
    EXPECT_THROW(Reader(itemsFile(), kItemType, "items"), MountError);
    fs::remove(itemsFile());
    fs::remove(itemsFile() + ".manifest");
    fs::create_symlink(root_ + "/victim", itemsFile() + ".manifest");
    EXPECT_THROW(items(), MountError);
    EXPECT_EQ(fs::file_size(root_ + "/victim"), 8U);
}

TEST_F(MountTest, WaitsForNoPipeInPlaceOfAFile) {
    fs::create_directories(root_ + "/items");
    ASSERT_EQ(mkfifo(itemsFile().c_str(), 0640), 0);
    EXPECT_TRUE(inOtherProcess([&] {
        alarm(5);
        expectInMessage([&] { Reader(itemsFile(), kItemType, "items"); }, "no regular file");
        expectInMessage([&] { items(); }, "no regular file");
        fs::rename(itemsFile(), itemsFile() + ".manifest");
        expectInMessage([&] { items(); }, "no regular file");
        return !HasFailure();
    }));
}

TEST_F(MountTest, ModesAreAsSaidWhateverTheMask) {
    const mode_t before = umask(0);
    items();
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(itemsFile().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    EXPECT_EQ(static_cast<std::uint64_t>(status.st_blocks) * 512U,
              static_cast<std::uint64_t>(status.st_size));
    ASSERT_EQ(stat((itemsFile() + ".manifest").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
    ASSERT_EQ(stat((root_ + "/items").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0750U);
}

TEST_F(MountTest, ListsTablesBelowAPath) {
    items(8, "config/unit/10");
    items(8, "config/unit/2");
    items(8, "config/other");
    fs::create_directories(root_ + "/config/unit/empty");
    fs::create_symlink(root_ + "/config/unit/10.table", root_ + "/config/unit/3.table");
    restart();
    EXPECT_EQ(manager_->entitiesBelow("/config"),
              (std::vector<std::string>{"other", "unit/10", "unit/2"}));
    EXPECT_EQ(manager_->entitiesBelow("config/unit"), (std::vector<std::string>{"10", "2"}));
    EXPECT_TRUE(manager_->entitiesBelow("nowhere").empty());
    EXPECT_THROW(manager_->entitiesBelow("config/unit/10.table"), MountError);
}

TEST_F(MountTest, ReaderRefusesMissingAndOtherTables) {
    expectInMessage([&] { Reader(itemsFile(), kItemType, "items"); }, "No such file");
    items();
    changes();
    expectInMessage([&] { Reader(changesFile(), kItemType, "items"); },
                    "of type Test::ChangeTable");
    expectInMessage([&] { Reader(itemsFile(), kItemType, "others"); }, "without collection others");
    struct Narrow {
        ItemKey itemKey;
        const ItemKey& key() const { return itemKey; }
    };
    expectInMessage([&] { MapReader<Narrow>(itemsFile(), kItemType, "items"); },
                    "of another layout in collection items");
}

TEST_F(MountTest, FileOfAnotherTableOfTheSameTypeIsNotTaken) {
    items(8, "unit/1")->items.insertOrReplace(item(1, 1));
    items(8, "unit/2");
    restart();
    const std::string second = tableFile(root_, "unit/2");
    fs::copy_file(tableFile(root_, "unit/1"), second, fs::copy_options::overwrite_existing);
    expectInMessage([&] { Reader(second, kItemType, "items"); }, "made for another place");
    const auto table = items(8, "unit/2");
    EXPECT_TRUE(table->collectionControl().wiped());
    EXPECT_FALSE(table->items.find(item(1, 0).key()).has_value());
    EXPECT_TRUE(fs::exists(second + ".damaged-1"));
}

TEST_F(MountTest, FolderOfTablesMayBeMovedAsAWhole) {
    items(8, "unit/1")->items.insertOrReplace(item(1, 1));
    restart();
    const TestSupport::TempDir elsewhere;
    fs::copy(root_, elsewhere.path(), fs::copy_options::recursive);
    const Reader reader(tableFile(elsewhere.path(), "unit/1"), kItemType, "items");
    EXPECT_EQ(reader.find(item(1, 0).key()), item(1, 1));
}

/// As Item, with the halves of the key the other way round.
struct ItemOtherWayRound {
    struct Key {
        std::uint32_t kind = 0;
        std::uint32_t id = 0;

        auto operator<=>(const Key&) const = default;
        bool isEq(const Key& other) const { return *this == other; }
        static constexpr std::uint64_t layout() {
            return Brumo::layoutOf({offsetof(Key, id), offsetof(Key, kind)});
        }
        std::uint32_t hash(unsigned seed) const { return id + seed; }
    };
    Key itemKey;
    std::uint64_t payload[19]{};

    static constexpr std::uint64_t layout() { return Brumo::layoutOf<Key>(); }
    const Key& key() const { return itemKey; }
};

TEST_F(MountTest, ReaderRefusesAnotherLayoutOfEqualSize) {
    items();
    static_assert(sizeof(ItemOtherWayRound) == sizeof(Item));
    static_assert(alignof(ItemOtherWayRound) == alignof(Item));
    expectInMessage([&] { MapReader<ItemOtherWayRound>(itemsFile(), kItemType, "items"); },
                    "of another layout in collection items");
}

TEST_F(MountTest, ReaderNoticesThatTheFileWasReplaced) {
    items()->items.insertOrReplace(item(1, 1));
    const Reader reader(itemsFile(), kItemType, "items");
    EXPECT_FALSE(reader.stale());
    restart();
    EXPECT_FALSE(reader.stale());
    flip(itemsFile(), 8);
    items();
    EXPECT_TRUE(reader.stale());
    EXPECT_EQ(reader.find(item(1, 0).key()), item(1, 1));
    const Reader again(itemsFile(), kItemType, "items");
    EXPECT_FALSE(again.stale());
    EXPECT_TRUE(again.wiped());
    EXPECT_NE(again.identity(), reader.identity());
}

TEST_F(MountTest, CorruptionIsTracedAtLevelOneAndCounted) {
    std::vector<std::string> lines;
    const std::string filter = Brumo::traceFilter();
    Brumo::traceFilterIs("*/1-2");
    const Brumo::TraceSink before = Brumo::traceSinkIs([&](const Brumo::TraceRecord& record) {
        if (record.level == 1 && record.handle == "KivShimo")
            lines.emplace_back(record.text);
    });
    const auto table = items();
    table->doCorruptionDetected("something rotten");
    Brumo::traceSinkIs(before);
    Brumo::traceFilterIs(filter);
    EXPECT_EQ(table->corruptions(), 1U);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0], " something rotten");
}

TEST_F(MountTest, SystemsAndLocalFlagsHaveManagersOfTheirOwn) {
    EXPECT_NE(EntityManager::get(kSystem, false).get(), manager_);
    EXPECT_EQ(EntityManager::get(kSystem, false)->root(),
              std::string("/dev/shm/") + kSystem + "-shared");
    EXPECT_EQ(defaultRoot("s", true), "/dev/shm/s");
}

}  // namespace
}  // namespace KivShimo::Test
