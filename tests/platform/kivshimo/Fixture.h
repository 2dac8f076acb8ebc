// Tables and folders for the tests of shared memory.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <compare>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/Map.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/VersionLog.h"

namespace KivShimo::Test {

/// A key whose hash has few values, so that chains are long and hashes collide.
struct ItemKey {
    std::uint32_t id = 0;
    std::uint32_t kind = 0;

    auto operator<=>(const ItemKey&) const = default;
    bool isEq(const ItemKey& other) const { return *this == other; }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({offsetof(ItemKey, id), offsetof(ItemKey, kind)});
    }
    std::uint32_t hash(unsigned seed) const { return (id % 97 + seed) * 2654435761U; }
};

/// 160 bytes, as the values of real tables have.
struct Item {
    ItemKey itemKey;
    std::uint64_t payload[19]{};

    static constexpr std::uint64_t layout() { return Brumo::layoutOf<ItemKey>(); }
    const ItemKey& key() const { return itemKey; }
    bool operator==(const Item&) const = default;
};
static_assert(sizeof(Item) == 160);

inline Item item(std::uint64_t id, std::uint64_t content) {
    const auto number = static_cast<std::uint32_t>(id);
    Item result{{number, number % 3}, {}};
    for (std::uint64_t& word : result.payload)
        word = content;
    return result;
}

struct ChangeRecord {
    std::uint64_t version = 0;
    std::uint64_t content[3]{};

    bool operator==(const ChangeRecord&) const = default;
};

inline ChangeRecord change(std::uint64_t version) {
    return {version, {version * 3, ~version, 7}};
}

class ItemTable final : public Table {
public:
    static std::vector<CollectionLayout> layouts() { return {Map<Item>::layout("items")}; }
    explicit ItemTable(TableMount mount) : Table(std::move(mount)), items(*this, "items") {}

    Map<Item> items;
};

class ChangeTable final : public Table {
public:
    static std::vector<CollectionLayout> layouts() {
        return {VersionLog<ChangeRecord>::layout("changes")};
    }
    explicit ChangeTable(TableMount mount) : Table(std::move(mount)), changes(*this, "changes") {}

    VersionLog<ChangeRecord> changes;
};

constexpr const char* kItemType = "Test::ItemTable";
constexpr const char* kChangeType = "Test::ChangeTable";

/// A root folder of its own, removed in the end, and the two table types.
class ShimoTest : public testing::Test {
protected:
    ShimoTest() : root_("/dev/shm/kivshimo-test-XXXXXX") {
        EXPECT_NE(mkdtemp(root_.data()), nullptr);
        restart();
    }
    ~ShimoTest() override {
        EntityManager::forget(kSystem);
        EntityManager::capacityCeilingIs(~std::uint64_t{0});
        std::filesystem::remove_all(root_);
    }

    /// As a new process would: everything unmounted, nothing known.
    void restart() {
        EntityManager::forget(kSystem);
        EntityManager::rootIs(kSystem, true, root_);
        manager_ = EntityManager::get(kSystem, true).get();
    }

    template <class T>
    Brumo::Ptr<T> mounted(const char* type, const char* collection, const std::string& path,
                          std::uint64_t capacity) {
        MountInfo info(0);
        info.collectionIs({collection, capacity, 0});
        manager_->mountGroup()->mountIs(path, type, info);
        manager_->mountGroup()->close();
        return Brumo::dynamicCast<T>(manager_->entity(path));
    }
    Brumo::Ptr<ItemTable> items(std::uint64_t capacity = 64, const std::string& path = "items/1") {
        return mounted<ItemTable>(kItemType, "items", path, capacity);
    }
    Brumo::Ptr<ChangeTable> changes(std::uint64_t capacity = 64,
                                    const std::string& path = "changes") {
        return mounted<ChangeTable>(kChangeType, "changes", path, capacity);
    }

    std::string file(const std::string& path) const { return tableFile(root_, path); }
    std::string itemsFile() const { return file("items/1"); }
    std::string changesFile() const { return file("changes"); }

    /// Flips one bit of a file.
    static void flip(const std::string& file, std::uint64_t offset, unsigned bit = 0) {
        const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        unsigned char byte = 0;
        ASSERT_EQ(pread(fd, &byte, 1, static_cast<off_t>(offset)), 1);
        byte = static_cast<unsigned char>(byte ^ (1U << bit));
        ASSERT_EQ(pwrite(fd, &byte, 1, static_cast<off_t>(offset)), 1);
        close(fd);
    }
    static void overwrite(const std::string& file, std::uint64_t offset, std::uint64_t value) {
        const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(pwrite(fd, &value, sizeof(value), static_cast<off_t>(offset)), 8);
        close(fd);
    }

    /// Runs the body in another process; true when it returned true.
    static bool inOtherProcess(const std::function<bool()>& body) {
        const pid_t child = fork();
        if (child == 0) {
            bool good = false;
            try {
                good = body();
            } catch (const std::exception& error) {
                fprintf(stderr, "in the other process: %s\n", error.what());
            }
            _exit(good ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    /// Runs the body in another process, which is killed after it.
    static void inKilledProcess(const std::function<void()>& body) {
        const pid_t child = fork();
        if (child == 0) {
            body();
            kill(getpid(), SIGKILL);
        }
        waitpid(child, nullptr, 0);
    }

    static constexpr const char* kSystem = "kivshimo-test";

    std::string root_;
    EntityManager* manager_ = nullptr;

private:
    TableTypeRegistration itemType_{kItemType, tableTypeOf<ItemTable>()};
    TableTypeRegistration changeType_{kChangeType, tableTypeOf<ChangeTable>()};
};

/// Offset of a slot in a file whose only collection is a map of Items.
inline std::uint64_t itemSlotOffset(std::uint64_t capacity, std::uint64_t slot) {
    return detail::kAreasOffset + 8 * detail::mapBuckets(capacity) +
           slot * detail::mapSlotBytes(sizeof(Item));
}

}  // namespace KivShimo::Test
