// What the agent owns of the platform: the group, the resource tables, the three families and the
// tables of its units.
//
// Event thread only. Made once a process; ends with everything taken down in order.
//
// What always holds:
//  1. The first thing that is mounted is the group's announcement log: a second agent on the same
//     directory fails there, before it has changed anything.
//  2. The tables of the agent's units are made before units that it no longer has are cleared; of
//     those the match entries are cleared before the actions.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "agent/Options.h"
#include "agent/Plugin.h"
#include "agent/PolicyLoader.h"
#include "platform/asic/GenId.h"
#include "platform/resources/CrpsIndexRequestResourceTable.h"
#include "platform/resources/PolicerIndexRequestResourceTable.h"

namespace Agent {

/// The tables of the group.
inline constexpr std::array<Asic::SwTableId, 3> kTableIds{ActionTypes::kTableId, V4Types::kTableId,
                                                          V6Types::kTableId};

class Tables {
public:
    using Counters = VornCountersLib::CrpsIndexRequestResourceTable;
    using Policers = VornPolicerLib::PolicerIndexRequestResourceTable;
    template <class Types>
    using Family = Brumo::Ptr<VornPolicyCpu::TableFamily<Types>>;

    /// `loop` outlives this object. A process knows a system under one root, so tests that use
    /// several roots name a system each. Throws KivShimo::MountError, DuplicateWriterError among
    /// them.
    Tables(const Options& options, const Plugin& plugin, Kiv::EventLoop& loop,
           const std::string& system = "vorn");
    Tables(const Tables&) = delete;
    Tables& operator=(const Tables&) = delete;
    ~Tables();

    Asic::GroupInterface& group() const { return *group_; }
    Counters& counters() const { return *counters_; }
    Policers& policers() const { return *policers_; }
    const Family<ActionTypes>& actions() const { return actions_; }
    const Family<V4Types>& ipv4() const { return ipv4_; }
    const Family<V6Types>& ipv6() const { return ipv6_; }
    const std::vector<UnitTables>& units() const { return units_; }
    /// All tables of all units; those of a unit in the order actions, IPv4, IPv6.
    void forEachTable(const std::function<void(const Asic::OrderedSwTable&)>& visit) const;
    /// A family's change log. REQUIRES: `table` is one of the three.
    struct LogFigures {
        Asic::LogVersion published;  ///< the last version handed out
        std::size_t records = 0;
        std::size_t capacity = 0;
    };
    LogFigures log(Asic::SwTableId table) const;

    /// How often lost shared memory was made anew.
    std::uint64_t relaunches() const { return relaunch_->majorId(); }

private:
    void makeResourceTables(const Options& options, Kiv::EventLoop& loop);

    Brumo::Ptr<Asic::GenId> relaunch_;
    Brumo::Ptr<Asic::OrderedTableInterface> interface_;
    Brumo::Ptr<Asic::GroupInterface> group_;
    Brumo::Ptr<Counters> counters_;
    Brumo::Ptr<Policers> policers_;
    Family<ActionTypes> actions_;
    Family<V4Types> ipv4_;
    Family<V6Types> ipv6_;
    std::vector<UnitTables> units_;
};

}  // namespace Agent
