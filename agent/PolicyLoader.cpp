#include "agent/PolicyLoader.h"

#include <utility>

#include "agent/PolicyDifference.h"
#include "agent/UnitLoader.h"

namespace Agent {

PolicyLoader::PolicyLoader(std::vector<UnitTables> units,
                           std::function<void(const LoadFigures&)> finished,
                           std::uint64_t mostInProgress)
    : units_(std::move(units)),
      finished_(std::move(finished)),
      mostInProgress_(mostInProgress),
      figures_(std::make_shared<LoadFigures>()) {
    for (const UnitTables& unit : units_)
        loaders_.push_back(std::make_shared<UnitLoader>(unit, [this] { moved(); }));
}

PolicyLoader::~PolicyLoader() {
    for (const auto& loader : loaders_)
        loader->detach();
}

const LoadFigures& PolicyLoader::load(const std::shared_ptr<const CompiledPolicy>& policy) {
    if (inProgress() > mostInProgress_) {
        next_ = policy;
        figures_->waiting = policy->file;
        return *figures_;
    }
    std::erase_if(unfinished_, [](const auto& earlier) { return earlier->inProgress == 0; });
    const auto figures = std::make_shared<LoadFigures>();
    figures->number = figures_->number + 1;
    figures->file = policy->file;
    figures_ = figures;
    unfinished_.push_back(figures);
    reported_ = true;  // not before every unit has had its turn
    for (const auto& loader : loaders_)
        loader->load(policy, figures);
    reported_ = figures->inProgress == 0;
    return *figures;
}

nlohmann::ordered_json PolicyLoader::difference(const CompiledPolicy& policy) const {
    Json json = noDifference();
    for (const auto& loader : loaders_)
        loader->addDifferenceTo(json, policy);
    return json;
}

std::uint64_t PolicyLoader::inProgress() const {
    std::uint64_t sum = 0;
    for (const auto& figures : unfinished_)
        sum += figures->inProgress;
    return sum;
}

/// A change has ended: a load may have ended with it, or another one begin.
void PolicyLoader::moved() {
    if (next_ != nullptr && inProgress() <= mostInProgress_) {
        load(std::exchange(next_, nullptr));
        return;
    }
    if (reported_ || figures_->inProgress != 0)
        return;
    reported_ = true;
    finished_(*figures_);
}

}  // namespace Agent
