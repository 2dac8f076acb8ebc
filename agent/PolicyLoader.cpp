#include "agent/PolicyLoader.h"

#include "agent/UnitLoader.h"

namespace Agent {

PolicyLoader::PolicyLoader(std::vector<UnitTables> units,
                           std::function<void(const LoadFigures&)> finished)
    : units_(std::move(units)),
      finished_(std::move(finished)),
      figures_(std::make_shared<LoadFigures>()) {
    for (const UnitTables& unit : units_)
        loaders_.push_back(std::make_shared<UnitLoader>(unit, [this] { finishIfDone(); }));
}

PolicyLoader::~PolicyLoader() {
    for (const auto& loader : loaders_)
        loader->detach();
}

const LoadFigures& PolicyLoader::load(const std::shared_ptr<const CompiledPolicy>& policy) {
    const auto figures = std::make_shared<LoadFigures>();
    figures->number = figures_->number + 1;
    figures->file = policy->file;
    figures_ = figures;
    reported_ = true;  // not before every unit has had its turn
    for (const auto& loader : loaders_)
        loader->load(policy, figures);
    reported_ = figures->inProgress == 0;
    return *figures;
}

void PolicyLoader::finishIfDone() {
    if (reported_ || figures_->inProgress != 0)
        return;
    reported_ = true;
    finished_(*figures_);
}

}  // namespace Agent
