// Files of shared memory as their writers leave them, and what an input makes of them.
//
// One thread. The whole files are the same in every process, so that an input that finds something
// finds it again.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/support/Input.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/Map.h"
#include "platform/kivshimo/VersionLog.h"

namespace Fuzz {

/// A key whose hash has few values, so that chains are long.
struct ItemKey {
    std::uint32_t id = 0;
    std::uint32_t kind = 0;

    auto operator<=>(const ItemKey&) const = default;
    bool isEq(const ItemKey& other) const { return *this == other; }
    std::uint32_t hash(unsigned seed) const { return (id % 3 + seed) * 2654435761U; }
};

struct Item {
    ItemKey itemKey;
    std::uint64_t payload[4]{};

    const ItemKey& key() const { return itemKey; }
};

struct ChangeRecord {
    std::uint64_t version = 0;
    std::uint64_t content[3]{};
};

class ItemTable final : public KivShimo::Table {
public:
    static std::vector<KivShimo::CollectionLayout> layouts() {
        return {KivShimo::Map<Item>::layout("items")};
    }
    explicit ItemTable(KivShimo::TableMount mount)
        : KivShimo::Table(std::move(mount)), items(*this, "items") {}

    KivShimo::Map<Item> items;
};

class ChangeTable final : public KivShimo::Table {
public:
    static std::vector<KivShimo::CollectionLayout> layouts() {
        return {KivShimo::VersionLog<ChangeRecord>::layout("changes")};
    }
    explicit ChangeTable(KivShimo::TableMount mount)
        : KivShimo::Table(std::move(mount)), changes(*this, "changes") {}

    KivShimo::VersionLog<ChangeRecord> changes;
};

enum class FileKind : std::uint8_t { items, changes, announcements, acknowledgements };
constexpr std::size_t kFileKinds = 4;

constexpr const char* kItemType = "Fuzz::ItemTable";
constexpr const char* kChangeType = "Fuzz::ChangeTable";
constexpr std::uint64_t kCapacity = 12;
constexpr std::uint64_t kAnnouncements = 16;

/// A folder, in memory where there is room for it, that goes with the object.
class Folder {
public:
    Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder();

    const std::string& path() const { return path_; }
    /// Removes what is in it.
    void clear() const;

private:
    std::string path_;
};

class TableFiles {
public:
    TableFiles();

    const std::string& root() const { return folder_.path(); }
    /// Relative to the root, without the suffix.
    static const char* nameOf(FileKind kind);
    std::string fileOf(FileKind kind) const;

    /// Leaves one file in the folder, of a kind and with damages that the input says.
    FileKind damagedBy(Input& input);

    /// Mount what is at the root; they throw what mounting throws.
    Brumo::Ptr<ItemTable> items();
    Brumo::Ptr<ChangeTable> changes();

private:
    void write(FileKind kind);

    Folder folder_;
    Brumo::Ptr<KivShimo::EntityManager> manager_;
    std::array<std::string, kFileKinds> whole_;
    KivShimo::TableTypeRegistration itemType_{kItemType, KivShimo::tableTypeOf<ItemTable>()};
    KivShimo::TableTypeRegistration changeType_{kChangeType, KivShimo::tableTypeOf<ChangeTable>()};
};

}  // namespace Fuzz
