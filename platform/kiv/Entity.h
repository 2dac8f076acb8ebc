// Entities: objects with attributes, a description of their class and a publisher of changes.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brumo/Ptr.h"
#include "platform/kiv/Publisher.h"

namespace Kiv {

/// What the framework knows of a class.
struct TypeData {
    std::string name;
    std::vector<std::string> attributes;
};

/// Base of every entity. Event thread only.
class Entity : public Brumo::RefCounted {
public:
    virtual const Publisher& publisher() const { return publisher_; }
    virtual const TypeData& typeData() const;
    /// Called when the entity gets a parent in the entity tree.
    virtual void handleParent() {}

private:
    Publisher publisher_;
};

/// An attribute was given a null object that it cannot hold.
class NullArgumentError : public std::invalid_argument {
public:
    explicit NullArgumentError(std::string_view attribute)
        : std::invalid_argument("null argument for attribute " + std::string(attribute)) {}
};

/// A collection already holds another object under the key.
class ReinstantiationError : public std::logic_error {
public:
    explicit ReinstantiationError(std::string_view attribute)
        : std::logic_error("re-instantiation in attribute " + std::string(attribute)) {}
};

}  // namespace Kiv
