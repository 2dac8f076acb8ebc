// The hardware side of a simulation: the real one, called when the simulation says, and what must
// hold of what it has programmed.
#pragma once

#include <array>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>

#include "hwside/LogReader.h"
#include "tests/model/Reference.h"

namespace Simulator {

class Hardware {
public:
    explicit Hardware(std::string root) : group_{std::move(root)} { start(); }

    HwSide::LogReader::Progress pump(std::size_t budget) { return reader_->pump(budget); }
    /// Ends the process; a new one finds the hardware as it was, or empty.
    void restart(bool isEmpty) {
        stop(isEmpty);
        start();
    }
    /// The two halves of a restart.
    void stop(bool isEmpty) {
        count();
        reader_.reset();
        acks_.reset();
        if (isEmpty)
            tcam_.emplace();
    }
    void start() {
        acks_.emplace(group_.root, HwSide::Group::acknowledgementsPath());
        reader_.emplace(group_, *tcam_, *acks_);
    }

    KivShimo::AckMapWriter& acks() { return *acks_; }
    const HwSide::Tcam& tcam() const { return *tcam_; }
    std::size_t waiting() const { return reader_->waiting(); }
    HwSide::LogReader::Counters total() const {
        HwSide::LogReader::Counters total = before_;
        add(total, reader_->counters());
        return total;
    }

private:
    using Counters = HwSide::LogReader::Counters;
    void count() { add(before_, reader_->counters()); }
    static void add(Counters& total, const Counters& more) {
        total.announcements += more.announcements;
        total.resources += more.resources;
        total.repeated += more.repeated;
        total.superseded += more.superseded;
        total.snapshots += more.snapshots;
        total.rotten += more.rotten;
        total.lost += more.lost;
    }

    HwSide::Group group_;
    std::optional<HwSide::Tcam> tcam_{std::in_place};
    std::optional<KivShimo::AckMapWriter> acks_;
    std::optional<HwSide::LogReader> reader_;
    Counters before_;
};

/// What each key of a table was at which version, and what hardware may hold of it.
template <class Types>
class History {
public:
    using Carried = typename ModelTests::FamilyModel<Types>::Carried;
    using Key = typename Types::Key;

    explicit History(ModelTests::Verdict& verdict) : verdict_(verdict) {}

    void add(const Carried& carried) {
        ModelTests::Needed needed;
        for (std::uint32_t i = 0; i < carried.needs; ++i)
            ModelTests::need(needed, carried.needed.at(i).table, carried.needed.at(i).version);
        const Asic::UnitId unit{static_cast<std::uint16_t>(carried.unit + 1)};
        if (carried.kind != ModelTests::Kind::removeAll) {
            Was was{carried.version, std::nullopt, needed};
            if (carried.kind == ModelTests::Kind::write) {
                was.content = carried.entry.toLogEntry();
                if constexpr (kHasIndexes)
                    was.requests = {carried.entry.counterRequestKey.requestId,
                                    carried.entry.policerRequestKey.requestId};
            }
            keys_[{unit, carried.key}].push_back(std::move(was));
            return;
        }
        for (auto& [at, versions] : keys_) {
            if (at.first == unit && versions.back().content.has_value())
                versions.push_back({carried.version, std::nullopt, needed});
        }
    }

    /// Compares hardware with what was acknowledged.
    void check(const HwSide::Tcam& tcam, std::uint64_t acknowledged,
               const KivShimo::AckMapWriter& acks) {
        std::size_t held = 0;
        users_ = {};
        for (auto& [at, versions] : keys_) {
            if constexpr (kHasIndexes)
                checkIndexes(versions, acknowledged);
            const auto* inHardware = find(tcam, at.first, at.second);
            held += inHardware == nullptr ? 0 : 1;
            if (inHardware != nullptr)
                checkHeld(at.second, versions, *inHardware, acks);
            const Was& last = versions.back();
            if (last.version > acknowledged)
                continue;
            if ((inHardware != nullptr) != last.content.has_value()) {
                verdict_.expect(
                    false,
                    fmt::format("unit {} key {}: {} at {}, acknowledged {}", at.first, at.second,
                                last.content ? "written" : "removed", last.version, acknowledged));
            } else if (inHardware != nullptr && inHardware->version.value != last.version) {
                verdict_.expect(
                    false, fmt::format("unit {} key {}: hardware holds {}, {} acknowledged",
                                       at.first, at.second, inHardware->version, last.version));
            }
            versions.erase(versions.begin(), std::prev(versions.end()));
        }
        verdict_.equal(tcam.entries<Types>(), held, "entries that hardware holds");
    }

private:
    struct Was {
        std::uint64_t version;
        std::optional<typename Types::LogEntry> content;
        ModelTests::Needed needed;
        std::array<std::uint32_t, 2> requests{};  ///< for a counter and a policer
    };
    static constexpr bool kHasIndexes = std::is_same_v<Types, HwSide::ActionTypes>;
    using At = std::pair<Asic::UnitId, Key>;
    using Held = typename HwSide::TcamTable<Types>::Held;

    static const Held* find(const HwSide::Tcam& tcam, Asic::UnitId unit, const Key& key) {
        const auto found = tcam.units().find(unit);
        return found == tcam.units().end() ? nullptr
                                           : found->second.template table<Types>().find(key);
    }

    /// What is held was committed so at its version, after what its change needed.
    void checkHeld(const Key& key, const std::deque<Was>& versions, const Held& held,
                   const KivShimo::AckMapWriter& acks) {
        const auto was = std::find_if(versions.begin(), versions.end(), [&](const Was& each) {
            return each.version == held.version.value;
        });
        if (was == versions.end() || !was->content.has_value()) {
            verdict_.expect(false, fmt::format("key {}: version {} that hardware holds was written",
                                               key, held.version));
            return;
        }
        if (!was->content->isEq(held.entry)) {
            verdict_.expect(false, fmt::format("key {}: the content of version {} in hardware", key,
                                               held.version));
        }
        for (const auto& [table, version] : was->needed) {
            if (acks.acknowledged(table).value_or(0) < version) {
                verdict_.expect(false, fmt::format("key {}@{} programmed before {:08x}@{}", key,
                                                   held.version, table, version));
            }
        }
    }

    /// An index is one request's until the change that ends its use is acknowledged.
    void checkIndexes(const std::deque<Was>& versions, std::uint64_t acknowledged) {
        for (auto was = versions.begin(); was != versions.end(); ++was) {
            const auto later = std::next(was);
            const bool isOver = later != versions.end() && later->version <= acknowledged;
            if (isOver || !was->content.has_value())
                continue;
            const std::uint32_t counter = was->content->counterIndex;
            const std::uint16_t policer = was->content->policerIndex;
            if (counter != VornPolicyCpu::kNoCounterIndex)
                checkIndex(0, counter, *was);
            if (policer != VornPolicyCpu::kNoPolicerIndex)
                checkIndex(1, policer, *was);
        }
    }
    void checkIndex(std::size_t resource, std::uint32_t index, const Was& was) {
        const std::uint32_t request = was.requests.at(resource);
        const auto [user, isNew] = users_.at(resource).try_emplace(index, request);
        if (!isNew && user->second != request) {
            verdict_.expect(false, fmt::format("resource {}: index {} is given to request {} while "
                                               "hardware may use it for {}",
                                               resource, index, request, user->second));
        }
    }

    ModelTests::Verdict& verdict_;
    /// Requests by index, of what hardware may hold.
    std::array<std::map<std::uint32_t, std::uint32_t>, 2> users_;
    std::map<At, std::deque<Was>> keys_;
};

}  // namespace Simulator
