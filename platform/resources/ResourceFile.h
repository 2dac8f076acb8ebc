// The file of a resource table: its records in shared memory.
//
// Event thread only.
//
// What always holds:
//  1. There is room for a record of every index; the pool is made no larger than that.
//  2. The header's number is the last version of the resource table.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/brumo/Assert.h"
#include "platform/brumo/Trace.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/Map.h"
#include "platform/kivshimo/Table.h"
#include "platform/regdb/EntityManager.h"
#include "platform/resources/ResourceRecord.h"

namespace Asic {

template <class Binding>
struct ResourceFile final : public KivShimo::Table {
    using Record = ResourceRecord<Binding>;

    static constexpr const char* kCollection = "indexes";

    explicit ResourceFile(KivShimo::TableMount mount)
        : Table(std::move(mount)), indexes(*this, kCollection) {}

    static std::vector<KivShimo::CollectionLayout> layouts() {
        return {KivShimo::Map<Record>::layout(kCollection)};
    }
    static std::string typeName() {
        return std::string(Binding::kLibrary) + "::" + std::string(Binding::kClassName) + "Shimo";
    }

    KivShimo::Map<Record> indexes;
};

template <class Binding>
class ResourceFileStore final : public ResourceStore<ResourceRecord<Binding>> {
public:
    using Record = ResourceRecord<Binding>;

    /// Throws KivShimo::MountError.
    ResourceFileStore(const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                      const std::string& name, std::uint32_t poolSize)
        : file_(mount(entityManager, name, poolSize)) {
        file_->tornSettled();
        KivShimo::CollectionControl& control = file_->collectionControl();
        if (!control.wiped())
            return;
        const Brumo::TraceSource trace(Binding::kClassName, "ResourceFileStore");
        trace(1, "the allocations of {} are lost", name);
    }

    std::uint64_t capacity() const { return file_->indexes.capacity(); }

    /// A rotten record is taken notice of and dropped.
    void forEach(const std::function<void(const Record&)>& visit) const override {
        for (auto key = file_->indexes.firstKey(); key; key = file_->indexes.nextKey(*key)) {
            try {
                visit(*file_->indexes.find(*key));
            } catch (const KivShimo::CorruptionError& error) {
                file_->doCorruptionDetected(error.what());
                file_->indexes.erase(*key);
            }
        }
    }
    std::optional<Record> find(std::uint32_t index) const override {
        return file_->indexes.find(ResourceIndex{index});
    }
    std::size_t size() const override { return file_->indexes.count(); }
    void write(const Record& record) override {
        Brumo::require(file_->indexes.insertOrReplace(record), "the file has room for each index");
    }
    void erase(std::uint32_t index) override { file_->indexes.erase(ResourceIndex{index}); }
    LogVersion version() const override { return {file_->collectionControl().scratchpad()}; }
    void versionIs(LogVersion version) override {
        file_->collectionControl().scratchpadIs(version.value);
    }
    bool versionInDoubt() const override {
        const KivShimo::CollectionControl& control = file_->collectionControl();
        return control.wiped() || control.scratchpadRotten();
    }
    void restoredVersionIs(LogVersion version) override {
        versionIs(version);
        file_->collectionControl().clearWiped();
    }

private:
    using File = ResourceFile<Binding>;

    static Brumo::Ptr<File> mount(const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                                  const std::string& name, std::uint32_t poolSize) {
        const auto manager =
            KivShimo::EntityManager::get(entityManager->systemName(), entityManager->local());
        const std::string path = "resources/" + std::string(Binding::kLibrary) + "/" + name;
        KivShimo::MountInfo info(0);
        info.collectionIs({File::kCollection, poolSize, 0});
        manager->mountGroup()->mountIs(path, File::typeName(), info);
        manager->mountGroup()->close();
        return Brumo::staticCast<File>(manager->entity(path));
    }

    Brumo::Ptr<File> file_;
};

}  // namespace Asic
