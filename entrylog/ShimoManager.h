// Where a table family's shared memory is mounted.
#pragma once

#include <cstdlib>

#include "platform/kivshimo/EntityManager.h"
#include "platform/regdb/EntityManager.h"

namespace VornPolicyCpu {

/// The manager of the state database's system: local as the database is, but for the environment
/// variable NOT_LOCAL_EM, which with any value chooses the one that is not local.
inline Brumo::Ptr<KivShimo::EntityManager> shimoManagerOf(
    const Regdb::EntityManager& stateDatabase) {
    const bool local = stateDatabase.local() && std::getenv("NOT_LOCAL_EM") == nullptr;
    return KivShimo::EntityManager::get(stateDatabase.systemName(), local);
}

}  // namespace VornPolicyCpu
