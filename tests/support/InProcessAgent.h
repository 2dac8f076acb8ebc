// An agent in the test's own process: real shared memory in a temporary directory, real resource
// tables, an event loop that the test turns, and a hardware side that acknowledges when told.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "interface/PolicyCpuTcamActionInterface.h"
#include "interface/PolicyCpuV4TcamEntryInterface.h"
#include "interface/PolicyCpuV6TcamEntryInterface.h"
#include "platform/asic/OrderedTableInterface.h"
#include "platform/kiv/EventLoop.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/resources/CrpsIndexRequestResourceTable.h"
#include "platform/resources/PolicerIndexRequestResourceTable.h"
#include "tests/support/TempDir.h"

namespace TestSupport {

/// Ends a family of tables, as the end of its process does. REQUIRES: its tables are gone.
void endFamily(const std::string& registryName);

class InProcessAgent {
public:
    struct Options {
        std::uint64_t capacityCeiling = 4096;  ///< slots of each shared-memory collection
        std::uint32_t counters = 1024;
        std::uint32_t policers = 1024;
    };

    InProcessAgent() : InProcessAgent(Options{}) {}
    explicit InProcessAgent(const Options& options);
    InProcessAgent(const InProcessAgent&) = delete;
    InProcessAgent& operator=(const InProcessAgent&) = delete;
    ~InProcessAgent();

    /// Ends everything that a process holds, and starts again from the files. What tests hold of
    /// the process before (tables, handles) must be dropped first.
    void restart();
    /// The two halves of a restart.
    void stop();
    void start();

    /// Runs the event loop until nothing is left.
    void settle();

    const Brumo::Ptr<VornPolicyCpu::PolicyCpuTcamActionInterface>& actions();
    const Brumo::Ptr<VornPolicyCpu::PolicyCpuV4TcamEntryInterface>& v4Entries();
    const Brumo::Ptr<VornPolicyCpu::PolicyCpuV6TcamEntryInterface>& v6Entries();

    Brumo::Ptr<VornPolicyCpu::PolicyCpuTcamActionSwTable> actionTable(std::uint16_t unit = 1) {
        return actions()->makeSwTable({unit}, nullptr, false);
    }
    Brumo::Ptr<VornPolicyCpu::PolicyCpuV4TcamEntrySwTable> v4Table(std::uint16_t unit = 1) {
        return v4Entries()->makeSwTable({unit}, nullptr, false);
    }
    Brumo::Ptr<VornPolicyCpu::PolicyCpuV6TcamEntrySwTable> v6Table(std::uint16_t unit = 1) {
        return v6Entries()->makeSwTable({unit}, nullptr, false);
    }

    /// The hardware side acknowledges a version, and the agent takes it up.
    void acknowledge(Asic::SwTableId tableId, std::uint64_t version);
    /// The same for all that has been handed out so far, resource tables first.
    void acknowledgeAll();

    Kiv::ManualEventLoop& loop() { return loop_; }
    const Brumo::Ptr<Regdb::EntityManager>& stateDatabase() const { return stateDatabase_; }
    const Brumo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf() const { return intf_; }
    /// The group of the tables; made on the first call.
    Brumo::Ptr<Asic::GroupInterface> group();
    const Brumo::Ptr<VornCountersLib::CrpsIndexRequestResourceTable>& counters() {
        return counters_;
    }
    const Brumo::Ptr<VornPolicerLib::PolicerIndexRequestResourceTable>& policers() {
        return policers_;
    }
    /// The hardware side's file, open for writing while this object lives.
    KivShimo::AckMapWriter& hardware();
    const std::string& systemName() const { return systemName_; }
    std::string root() const { return dir_.path(); }

private:
    Options options_;
    TempDir dir_;
    std::string systemName_;
    Kiv::ManualEventLoop loop_;
    std::optional<KivShimo::AckMapWriter> hardware_;
    Brumo::Ptr<Regdb::EntityManager> stateDatabase_;
    Brumo::Ptr<Asic::OrderedTableInterface> intf_;
    Brumo::Ptr<VornCountersLib::CrpsIndexRequestResourceTable> counters_;
    Brumo::Ptr<VornPolicerLib::PolicerIndexRequestResourceTable> policers_;
    Brumo::Ptr<VornPolicyCpu::PolicyCpuTcamActionInterface> actions_;
    Brumo::Ptr<VornPolicyCpu::PolicyCpuV4TcamEntryInterface> v4Entries_;
    Brumo::Ptr<VornPolicyCpu::PolicyCpuV6TcamEntryInterface> v6Entries_;
};

/// An action that needs a counter and a policer, all derived from one number.
VornPolicyCpu::PolicyCpuTcamActionEntry actionEntry(std::uint32_t id, std::uint32_t counter = 0,
                                                    std::uint32_t policer = 0);
VornPolicyCpu::PolicyCpuTcamActionEntryKey actionKey(std::uint32_t id);
VornPolicyCpu::PolicyCpuV4TcamEntryEntry v4Entry(std::uint32_t rule, std::uint32_t priority = 1);
VornPolicyCpu::PolicyCpuV6TcamEntryEntry v6Entry(std::uint32_t rule, std::uint32_t priority = 1);
VornPolicyCpu::MatchKey matchKey(std::uint32_t rule);

}  // namespace TestSupport
