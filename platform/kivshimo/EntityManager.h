// The mounted tables of a system by path, and the group through which they are mounted.
//
// Event thread of the writing process. Tables that are handed out stay mapped and locked until
// their last user is gone, also after entityDel or forget.
//
// What always holds:
//  1. There is one manager for each (system name, local) in a process until it is forgotten.
//  2. A path leads to one table; mounting it again with the same type gives the same object.
//  3. A file that cannot be taken over is kept aside, never overwritten.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kivshimo/Table.h"

namespace KivShimo {

/// A collection as its user declares it when mounting.
struct CollectionDeclaration {
    std::string name;
    std::uint64_t capacity;
    std::uint32_t third;  ///< reserved, 0
};

/// What is to be mounted.
class MountInfo {
public:
    /// `mountType` 0 is the only one: shared memory that survives the process.
    explicit MountInfo(int mountType) : mountType_(mountType) {}

    int mountType() const { return mountType_; }
    void collectionIs(CollectionDeclaration declaration) {
        collections_.push_back(std::move(declaration));
    }
    const std::vector<CollectionDeclaration>& collections() const { return collections_; }

private:
    int mountType_;
    std::vector<CollectionDeclaration> collections_;
};

class EntityManager;

/// Collects mounts and carries them out when closed.
class MountGroup final : public Brumo::RefCounted {
public:
    explicit MountGroup(EntityManager& manager) : manager_(&manager) {}

    void mountIs(std::string_view path, std::string_view typeName, const MountInfo& info);
    /// Mounts what was collected since the last close. Throws MountError (unknown type, collections
    /// that the type does not have, path taken by another type, files) and DuplicateWriterError;
    /// what was collected is dropped then, what was mounted before the failing one stays.
    void close();

private:
    struct Request {
        std::string path;
        std::string typeName;
        MountInfo info;
    };

    EntityManager* manager_;  ///< which owns the group
    std::vector<Request> requests_;
};

class EntityManager final : public Brumo::RefCounted {
public:
    /// The manager of the system; made on first use.
    static Brumo::Ptr<EntityManager> get(const std::string& systemName, bool local);
    /// Says where the tables lie. REQUIRES: the manager is not made yet, or the same root.
    static void rootIs(const std::string& systemName, bool local, std::string rootDirectory);
    /// Drops both managers of the system and their tables; what rootIs said stays.
    static void forget(const std::string& systemName);
    /// Most slots that a collection mounted from now on gets, whatever is declared.
    static void capacityCeilingIs(std::uint64_t slots);
    static std::uint64_t capacityCeiling();

    const Brumo::Ptr<MountGroup>& mountGroup() const { return mountGroup_; }
    /// Null when nothing is mounted there.
    Brumo::Ptr<Kiv::Entity> entity(std::string_view path) const;
    /// Takes the table off. Its file stays.
    void entityDel(std::string_view path);
    /// The paths below `basePath`, relative to it and sorted, at which table files lie. Throws
    /// MountError when they cannot be listed; a missing folder has none.
    std::vector<std::string> entitiesBelow(std::string_view basePath) const;
    const std::string& root() const { return root_; }

    explicit EntityManager(std::string root);
    ~EntityManager() override;

private:
    friend class MountGroup;
    struct Mounted {
        std::string typeName;
        Brumo::Ptr<Table> table;
    };

    void mount(const std::string& path, const std::string& typeName, const MountInfo& info);

    std::string root_;
    Brumo::Ptr<MountGroup> mountGroup_;
    std::map<std::string, Mounted, std::less<>> tables_;  ///< by path without a leading slash
};

}  // namespace KivShimo
