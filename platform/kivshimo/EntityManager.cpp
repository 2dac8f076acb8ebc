// The managers of the process, and mounting: from a declaration to a table object.
#include "platform/kivshimo/EntityManager.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>

#include "platform/brumo/Assert.h"
#include "platform/brumo/Trace.h"
#include "platform/kivshimo/Paths.h"

namespace KivShimo {
namespace {

using ManagerName = std::pair<std::string, bool>;

/// What the process knows of its systems.
struct Managers {
    std::map<ManagerName, Brumo::Ptr<EntityManager>> made;
    std::map<ManagerName, std::string> roots;
};

Managers& managers() {
    static Managers all;
    return all;
}

std::atomic<std::uint64_t> ceiling{std::numeric_limits<std::uint64_t>::max()};

const Brumo::TraceSource& managerTrace() {
    static const Brumo::TraceSource source("KivShimo", "EntityManager");
    return source;
}

std::string withoutSlash(std::string_view path) {
    return std::string(path.starts_with('/') ? path.substr(1) : path);
}

/// The type's collections with the capacities of the mount.
std::vector<detail::CollectionPlan> planOf(const std::string& path, const TableType& type,
                                           const MountInfo& info) {
    std::vector<detail::CollectionPlan> plan;
    for (const CollectionLayout& layout : type.collections) {
        const auto declared =
            std::ranges::find(info.collections(), layout.name, &CollectionDeclaration::name);
        if (declared == info.collections().end() || declared->capacity == 0) {
            throw MountError(path, "mount", "no capacity declared for collection " + layout.name);
        }
        if (declared->capacity > detail::kMostSlots) {
            throw MountError(path, "mount", "impossible capacity for collection " + layout.name);
        }
        plan.push_back({layout.name, layout.kind, layout.recordBytes, layout.fingerprint,
                        std::min(declared->capacity, EntityManager::capacityCeiling())});
    }
    for (const CollectionDeclaration& declaration : info.collections()) {
        if (std::ranges::find(plan, declaration.name, &detail::CollectionPlan::name) ==
            plan.end()) {
            throw MountError(path, "mount", "the type has no collection " + declaration.name);
        }
    }
    return plan;
}

}  // namespace

void MountGroup::mountIs(std::string_view path, std::string_view typeName, const MountInfo& info) {
    requests_.push_back({withoutSlash(path), std::string(typeName), info});
}

void MountGroup::close() {
    const std::vector<Request> requests = std::exchange(requests_, {});
    for (const Request& request : requests) {
        manager_->mount(request.path, request.typeName, request.info);
    }
}

Brumo::Ptr<EntityManager> EntityManager::get(const std::string& systemName, bool local) {
    const ManagerName name(systemName, local);
    Brumo::Ptr<EntityManager>& manager = managers().made[name];
    if (manager == nullptr) {
        const auto root = managers().roots.find(name);
        manager = Brumo::make<EntityManager>(
            root != managers().roots.end() ? root->second : defaultRoot(systemName, local));
    }
    return manager;
}

void EntityManager::rootIs(const std::string& systemName, bool local, std::string rootDirectory) {
    while (rootDirectory.size() > 1 && rootDirectory.ends_with('/'))
        rootDirectory.pop_back();
    const ManagerName name(systemName, local);
    const auto made = managers().made.find(name);
    Brumo::require(made == managers().made.end() || made->second->root() == rootDirectory,
                   "root set before the entity manager is made", systemName);
    managers().roots[name] = std::move(rootDirectory);
}

void EntityManager::forget(const std::string& systemName) {
    for (const bool local : {false, true}) {
        const ManagerName name(systemName, local);
        const auto made = managers().made.find(name);
        if (made != managers().made.end()) {
            const Brumo::Ptr<EntityManager> manager = made->second;
            managers().made.erase(made);
            manager->tables_.clear();
        }
    }
}

void EntityManager::capacityCeilingIs(std::uint64_t slots) {
    ceiling.store(std::max<std::uint64_t>(slots, 1), std::memory_order_relaxed);
}

std::uint64_t EntityManager::capacityCeiling() {
    return ceiling.load(std::memory_order_relaxed);
}

EntityManager::EntityManager(std::string root)
    : root_(std::move(root)), mountGroup_(Brumo::make<MountGroup>(*this)) {}

EntityManager::~EntityManager() = default;

Brumo::Ptr<Kiv::Entity> EntityManager::entity(std::string_view path) const {
    const auto found = tables_.find(withoutSlash(path));
    return found == tables_.end() ? Brumo::Ptr<Kiv::Entity>() : found->second.table;
}

void EntityManager::entityDel(std::string_view path) {
    const auto found = tables_.find(withoutSlash(path));
    if (found != tables_.end())
        tables_.erase(found);
}

std::vector<std::string> EntityManager::entitiesBelow(std::string_view basePath) const {
    namespace fs = std::filesystem;
    std::vector<std::string> result;
    const std::string relative = withoutSlash(basePath);
    const fs::path base = relative.empty() ? fs::path(root_) : fs::path(root_) / relative;
    // Only a missing folder has no tables: a failure taken for that would lose all there are.
    std::error_code error;
    fs::recursive_directory_iterator at(base, error);
    if (error == std::errc::no_such_file_or_directory)
        return result;
    for (const fs::recursive_directory_iterator end; !error && at != end; at.increment(error)) {
        const std::string name = at->path().lexically_relative(base).string();
        if (!name.ends_with(kTableSuffix))
            continue;
        // A link is no table: a mount would not follow it.
        if (fs::is_regular_file(at->symlink_status(error)))
            result.push_back(name.substr(0, name.size() - kTableSuffix.size()));
        if (error)
            break;
    }
    if (error)
        throw MountError(base.string(), "list", error.message());
    std::ranges::sort(result);
    return result;
}

void EntityManager::mount(const std::string& path, const std::string& typeName,
                          const MountInfo& info) {
    const auto there = tables_.find(path);
    if (there != tables_.end()) {
        if (there->second.typeName == typeName)
            return;
        throw MountError(path, "mount",
                         "a table of type " + there->second.typeName + " is mounted there");
    }
    if (info.mountType() != 0)
        throw MountError(path, "mount", "unknown mount type");
    const TableType* type = TableTypes::instance().type(typeName);
    if (type == nullptr)
        throw MountError(path, "mount", "unknown table type " + typeName);
    detail::WriterFile::Report report;
    detail::WriterFile file =
        detail::WriterFile::open(root_, path, typeName, planOf(path, *type, info), report);
    if (report.wiped) {
        managerTrace()(1, " {}: content lost: {}{}{}", file.file(), report.reason,
                       report.keptAside.empty() ? "" : ", kept aside as ", report.keptAside);
    }
    Brumo::Ptr<Table> table =
        type->factory({path, std::make_unique<detail::WriterFile>(std::move(file))});
    if (report.markRotten)
        table->doCorruptionDetected(detail::rottenMarkIn(table->file()));
    tables_.insert_or_assign(path, Mounted{typeName, std::move(table)});
}

}  // namespace KivShimo
