#include "agent/PolicyReader.h"

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <yaml-cpp/eventhandler.h>

#include "agent/FieldText.h"

namespace Agent {

namespace {

Position positionOf(const YAML::Mark& mark) {
    return mark.is_null() ? Position{} : Position{mark.line + 1, mark.column + 1};
}

}  // namespace

bool checkName(const Text& name, PolicyErrors& errors) {
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '_' || c == '-';
    };
    const bool good = !name.text.empty() && name.text.size() <= 64 &&
                      std::all_of(name.text.begin(), name.text.end(), allowed);
    if (!good)
        reportValue(errors, name, kNameExpected);
    return good;
}

void ActionReader::readPolicers(const MapReader::Field& field) {
    forEachItem(field, "policers", errors_, [&](const YAML::Node& node, const Position& at) {
        MapReader map(node, at, "a policer", errors_);
        Policer policer;
        policer.at = at;
        policer.shared = true;
        const auto name = map.takeRequired("name", kNameExpected);
        readRates(map, policer);
        map.finish();
        if (!name || !checkName(*name, errors_))
            return;
        policer.name = name->text;
        const auto [same, added] = shared_.try_emplace(name->text, policer);
        if (!added) {
            errors_.add(name->at, fmt::format("expected a policer name of its own, '{}' is in "
                                              "line {} already",
                                              name->text, same->second.at.line));
        }
    });
}

void ActionReader::readRates(MapReader& map, Policer& policer) {
    const auto rateText = map.takeRequired("rate", kRateExpected);
    const auto burstText = map.takeRequired("burst", kBurstExpected);
    const Quantity rate = rateText ? rateFromText(rateText->text).value_or(Quantity{}) : Quantity{};
    const Quantity burst =
        burstText ? burstFromText(burstText->text).value_or(Quantity{}) : Quantity{};
    if (rateText && rate.value == 0)
        reportValue(errors_, *rateText, kRateExpected);
    const bool ofOtherUnit = rate.value != 0 && burst.mode != VornPolicerLib::PolicerMode::none &&
                             burst.mode != rate.mode;
    if (burstText && (burst.value == 0 || ofOtherUnit))
        reportValue(errors_, *burstText, kBurstExpected);
    policer.mode = rate.mode;
    policer.rate = rate.value;
    policer.burst = burst.value;
}

std::vector<Action> ActionReader::readActions(const MapReader::Field& field) {
    std::vector<Action> actions;
    forEachItem(field, "actions", errors_, [&](const YAML::Node& node, const Position& at) {
        actions.push_back(readAction(node, at));
    });
    return actions;
}

Action ActionReader::readAction(const YAML::Node& node, const Position& at) {
    MapReader map(node, at, "an action", errors_);
    Action action;
    action.at = at;
    if (const auto name = map.takeRequired("name", kNameExpected); name) {
        action.at = name->at;
        if (checkName(*name, errors_))
            action.name = name->text;
    }
    readCounter(map, action);
    if (auto field = map.take("policer"))
        action.policer = readPolicer(*field, action.name);
    constexpr std::string_view kExpected = "permit or drop";
    if (const auto text = map.takeScalar("disposition", kExpected)) {
        if (text->text == "drop")
            action.disposition = VornPolicyCpu::Disposition::drop;
        else if (text->text != "permit")
            reportValue(errors_, *text, kExpected);
    }
    map.finish();
    return action;
}

void ActionReader::readCounter(MapReader& map, Action& action) {
    const auto text = map.takeScalar("counter", "yes, no or the name of a shared counter");
    if (!text || text->text == "no")
        return;
    action.counted = true;
    if (text->text != "yes" && checkName(*text, errors_))
        action.sharedCounter = text->text;
}

std::optional<Policer> ActionReader::readPolicer(MapReader::Field& field,
                                                 const std::string& actionName) {
    if (field.node.IsScalar()) {
        const Text name{field.node.Scalar(), field.at()};
        const auto found = shared_.find(name.text);
        if (found == shared_.end()) {
            reportValue(errors_, name, "the name of a policer in 'policers'");
            return std::nullopt;
        }
        return found->second;
    }
    Policer policer;
    policer.at = field.at();
    policer.name = actionName;
    MapReader map(field.node, field.at(), "a policer", errors_);
    readRates(map, policer);
    map.finish();
    return policer;
}

namespace {

void readTop(const YAML::Node& root, Policy& policy, PolicyErrors& errors) {
    MapReader map(root, {1, 1}, "a policy", errors);
    Variables variables;
    if (const auto field = map.take("variables"))
        variables.read(*field, errors);
    ActionReader actions(errors);
    if (const auto field = map.take("policers"))
        actions.readPolicers(*field);
    if (const auto field = map.take("actions"))
        policy.actions = actions.readActions(*field);
    if (const auto field = map.take("ipv4"))
        policy.ipv4 = RuleReader<V4Types>(variables, errors).read(*field);
    if (const auto field = map.take("ipv6"))
        policy.ipv6 = RuleReader<V6Types>(variables, errors).read(*field);
    map.finish();
}

/// Notes where each document has its content.
class DocumentStarts final : public YAML::EventHandler {
public:
    std::vector<YAML::Mark> starts;

    void OnDocumentStart(const YAML::Mark& mark) override {
        starts.push_back(mark);
        isEmpty_ = true;
    }
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark& mark, YAML::anchor_t /*anchor*/) override { content(mark); }
    void OnAlias(const YAML::Mark& mark, YAML::anchor_t /*anchor*/) override { content(mark); }
    void OnScalar(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                  const std::string& /*value*/) override {
        content(mark);
    }
    void OnSequenceStart(const YAML::Mark& mark, const std::string& /*tag*/,
                         YAML::anchor_t /*anchor*/, YAML::EmitterStyle::value /*style*/) override {
        content(mark);
    }
    void OnSequenceEnd() override {}
    void OnMapStart(const YAML::Mark& mark, const std::string& /*tag*/, YAML::anchor_t /*anchor*/,
                    YAML::EmitterStyle::value /*style*/) override {
        content(mark);
    }
    void OnMapEnd() override {}

private:
    void content(const YAML::Mark& mark) {
        if (std::exchange(isEmpty_, false))
            starts.back() = mark;
    }

    bool isEmpty_ = false;
};

/// Where the first two documents are. To ask for all of them is asking too much: with some texts
/// that are no YAML the library finds the same document again and again.
std::vector<YAML::Mark> firstDocuments(const std::string& text) {
    std::istringstream stream(text);
    YAML::Parser parser(stream);
    DocumentStarts documents;
    if (parser.HandleNextDocument(documents))
        parser.HandleNextDocument(documents);
    return documents.starts;
}

}  // namespace

Policy readPolicy(const std::string& text, PolicyErrors& errors) {
    Policy policy;
    try {
        const std::vector<YAML::Mark> documents = firstDocuments(text);
        if (documents.size() > 1)
            errors.add(positionOf(documents[1]), "expected one YAML document, not several");
        readTop(documents.empty() ? YAML::Node() : YAML::Load(text), policy, errors);
    } catch (const YAML::Exception& error) {
        errors.add(positionOf(error.mark), "expected YAML: " + error.msg);
    }
    return policy;
}

}  // namespace Agent
