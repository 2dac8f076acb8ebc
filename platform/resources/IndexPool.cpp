#include "platform/resources/IndexPool.h"

#include <algorithm>

#include "platform/brumo/Assert.h"

namespace Asic {

IndexPool::IndexPool(std::uint32_t size) : places_(size, Place::free), ring_(size) {}

void IndexPool::restore(std::uint32_t index, Place place) {
    Brumo::require(queued_ == 0 && places_[index] == Place::free, "free before restored()");
    moveTo(index, place);
}

void IndexPool::restored() {
    for (std::uint32_t index = 0; index < size(); ++index) {
        if (places_[index] == Place::free)
            queue(index);
    }
}

std::optional<std::uint32_t> IndexPool::take() {
    if (queued_ == 0)
        return std::nullopt;
    const std::uint32_t index = ring_[head_];
    head_ = head_ + 1 == size() ? 0 : head_ + 1;
    --queued_;
    moveTo(index, Place::used);
    return index;
}

void IndexPool::startReturn(std::uint32_t index) {
    Brumo::require(places_[index] == Place::used, "only what is used returns");
    moveTo(index, Place::returning);
}

void IndexPool::revive(std::uint32_t index) {
    Brumo::require(places_[index] == Place::returning, "only what returns is revived");
    moveTo(index, Place::used);
}

void IndexPool::giveBack(std::uint32_t index) {
    Brumo::require(places_[index] != Place::free, "an index is given back once");
    moveTo(index, Place::free);
    queue(index);
}

void IndexPool::moveTo(std::uint32_t index, Place place) {
    Place& held = places_[index];
    if (held == Place::used)
        --used_;
    if (held == Place::returning)
        --returning_;
    if (place == Place::used)
        ++used_;
    if (place == Place::returning)
        ++returning_;
    held = place;
}

void IndexPool::queue(std::uint32_t index) {
    const std::uint64_t at = std::uint64_t{head_} + queued_;
    ring_[at < size() ? at : at - size()] = index;
    ++queued_;
}

void IndexPool::assertConsistent() const {
    const auto count = [this](Place place) {
        return static_cast<std::uint32_t>(std::count(places_.begin(), places_.end(), place));
    };
    Brumo::require(count(Place::used) == used_, "used figure is the number of used indexes");
    Brumo::require(count(Place::returning) == returning_,
                   "returning figure is the number of returning indexes");
    Brumo::require(queued_ == free(), "every free index is queued");
    std::vector<bool> seen(size());
    for (std::uint32_t i = 0; i < queued_; ++i) {
        const std::uint64_t at = std::uint64_t{head_} + i;
        const std::uint32_t index = ring_[at < size() ? at : at - size()];
        Brumo::require(places_[index] == Place::free, "only free indexes are queued");
        Brumo::require(!seen[index], "no index is queued twice");
        seen[index] = true;
    }
}

}  // namespace Asic
