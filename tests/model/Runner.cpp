#include <array>
#include <memory>
#include <optional>
#include <set>

#include "platform/asic/Constants.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Paths.h"
#include "tests/model/FamilyDriver.h"
#include "types/Constants.h"

namespace ModelTests {

namespace {

using VornPolicyCpu::PolicyCpuTcamActionBinding;
using VornPolicyCpu::PolicyCpuV4TcamEntryBinding;
using VornPolicyCpu::PolicyCpuV6TcamEntryBinding;

constexpr std::uint32_t kPool = 3;

TestSupport::InProcessAgent::Options options() {
    return {.capacityCeiling = 1024, .counters = kPool, .policers = kPool};
}

class Runner {
public:
    explicit Runner(const Sequence& sequence)
        : agent_(options()), setting_{agent_, world_, {}}, units_(sequence.twoUnits ? 2 : 1) {
        families_[0] = std::make_unique<FamilyDriver<PolicyCpuTcamActionBinding>>(setting_, units_);
        if (sequence.v6) {
            families_[1] =
                std::make_unique<FamilyDriver<PolicyCpuV6TcamEntryBinding>>(setting_, units_);
        } else {
            families_[1] =
                std::make_unique<FamilyDriver<PolicyCpuV4TcamEntryBinding>>(setting_, units_);
        }
        reader_ = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
            agent_.root(),
            Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName())));
    }
    ~Runner() {
        for (const auto& family : families_)
            family->closeTables();
    }
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    /// What went wrong first, and when.
    std::string run(const Sequence& sequence) {
        bool plain = true;
        for (Command command : sequence.commands) {
            command.unit %= static_cast<unsigned>(units_);
            plain = plain && command.variant % 4 == 0;
            step(command);
            compare();
            if (!failure().empty())
                return fmt::format("{}\nafter: {}", failure(), textOf(command));
        }
        finish(plain);
        return failure();
    }

    const Reached& reached() const { return world_.reached; }

private:
    const std::string& failure() const { return world_.verdict.failure(); }
    Family& family(const Command& command) { return *families_.at(command.family); }

    void step(const Command& command) {
        switch (command.op) {
            case Op::write:
            case Op::remove:
            case Op::removeAll:
                family(command).stage(command);
                break;
            case Op::turn:
                agent_.loop().turn();
                break;
            case Op::settle:
                settle();
                break;
            case Op::acknowledge:
                acknowledge(command.family, family(command).version() * command.amount / 8);
                break;
            case Op::acknowledgeResources:
                acknowledgeResources();
                break;
            case Op::move:
            case Op::fail:
            case Op::recover:
                changeResource(command);
                break;
            case Op::cleanup:
                family(command).cleanup(family(command).version() * command.amount / 8 +
                                        command.variant);
                break;
            case Op::openWalk:
            case Op::stepWalk:
                family(command).walk(command);
                break;
            case Op::update:
                family(command).update(command);
                break;
            case Op::clearTable:
                family(command).clear(command);
                break;
            case Op::pause:
            case Op::resume:
                pauseIs(command.op == Op::pause);
                break;
            case Op::restart:
                restart();
                break;
        }
    }

    void settle() {
        agent_.settle();
        if (world_.paused)
            return;
        for (const auto& family : families_)
            world_.verdict.expect(family->idle(), "nothing that may commit is left uncommitted");
    }

    void changeResource(const Command& command) {
        if (command.family == 0) {
            VornCountersLib::CrpsIndexRequestEntryKey key;
            key.requestId = command.key + 1;
            changeResource(*agent_.counters(), key, command.op);
        } else {
            VornPolicerLib::PolicerIndexRequestEntryKey key;
            key.requestId = command.key + 1;
            changeResource(*agent_.policers(), key, command.op);
        }
    }
    template <class Table, class Key>
    static void changeResource(Table& table, const Key& key, Op op) {
        if (op == Op::move) {
            table.move(key);
        } else if (op == Op::fail) {
            table.fail(key);
        } else {
            table.restore(key);
        }
    }

    /// What the hardware side's map says now; the model hears of it when the agent does.
    void acknowledge(std::size_t which, std::uint64_t version) {
        if (version > inMap_.at(which)) {
            agent_.hardware().ackIs(families_.at(which)->tableId(), version);
            inMap_.at(which) = version;
        }
        arrive();
    }

    void acknowledgeResources() {
        for (const std::uint32_t table :
             {agent_.counters()->tableId().whole(), agent_.policers()->tableId().whole()}) {
            const auto version = agent_.group()->announcedVersion(Asic::SwTableId(table));
            if (version.value != 0)
                agent_.hardware().ackIs(table, version.value);
        }
        arrive();
    }

    void pauseIs(bool requested) {
        agent_.hardware().pauseRequestedIs(requested);
        pauseInMap_ = requested;
        arrive();
    }

    void arrive() {
        readAnnouncements();
        agent_.hardware().announceIdentityIs(reader_->identity());
        while (!outstanding_.empty() &&
               agent_.hardware().acknowledged(outstanding_.front().table).value_or(0) >=
                   outstanding_.front().version) {
            agent_.hardware().consumedIs(outstanding_.front().position);
            outstanding_.pop_front();
        }
        world_.paused = pauseInMap_;
        for (std::size_t which = 0; which < families_.size(); ++which) {
            if (inMap_.at(which) == taken_.at(which))
                continue;
            taken_.at(which) = inMap_.at(which);
            families_.at(which)->acknowledged(inMap_.at(which));
        }
        agent_.group()->acknowledgementsArrived();
    }

    void restart() {
        readAnnouncements();
        for (Change& change : world_.changes)
            change.forgotten = true;
        setting_.handles.clear();
        for (const auto& family : families_)
            family->closeTables();
        agent_.restart();
        world_.reached.restarts += 1;
        taken_ = {};
        world_.paused = false;
        for (std::size_t which = 0; which < families_.size(); ++which)
            families_.at(which)->restarted(inMap_.at(which));
        agent_.counters()->sweepUnclaimed();
        agent_.policers()->sweepUnclaimed();
    }

    /// At the end of each sequence: everything comes to rest, and a restart finds it so.
    void finish(bool plain) {
        pauseIs(false);
        for (int round = 0; round < 3; ++round) {
            settle();
            acknowledgeResources();
            acknowledge(0, families_[0]->version());
            acknowledge(1, families_[1]->version());
        }
        settle();
        compare();
        compareAtRest(*agent_.counters());
        compareAtRest(*agent_.policers());
        const std::array<std::uint64_t, 2> before{families_[0]->version(), families_[1]->version()};
        restart();
        settle();
        compare();
        for (std::size_t which = 0; plain && which < families_.size(); ++which)
            world_.verdict.equal(families_.at(which)->version(), before.at(which),
                                 "a restart writes only what has changed");
    }

    template <class Table>
    void compareAtRest(const Table& table) {
        std::uint32_t indexed = 0;
        for (const auto& info : table.keys())
            indexed += info.state != Asic::EntryState::exhausted ? 1 : 0;
        world_.verdict.equal(table.pool().used, indexed, "indexes in use");
        world_.verdict.equal(table.pool().returning, 0U, "indexes that return for ever");
        world_.verdict.expect(indexed == table.entries() || indexed == kPool,
                              "nothing is exhausted while an index is free");
    }

    void readAnnouncements() {
        while (const auto announcement = reader_->next(position_ + 1)) {
            position_ = announcement->position;
            outstanding_.push_back(
                {announcement->position, announcement->tableId, announcement->version});
            if (announcement->tableId != families_[0]->tableId() &&
                announcement->tableId != families_[1]->tableId())
                continue;
            Announced announced{announcement->tableId, announcement->version, {}};
            for (const auto& needed : announcement->needed)
                need(announced.needed, needed.tableId, needed.version);
            const bool expected =
                !world_.announced.empty() && world_.announced.front() == announced;
            world_.verdict.expect(expected, fmt::format("announcement of {:08x} {} and its needs",
                                                        announced.table, announced.version));
            if (!world_.announced.empty())
                world_.announced.pop_front();
        }
    }

    void compare() {
        readAnnouncements();
        world_.verdict.expect(world_.announced.empty(), "every change is announced");
        for (const auto& family : families_)
            family->compare();
        std::array<std::set<std::uint32_t>, 2> held;
        for (const auto& family : families_)
            family->held(held);
        compareRequests(0, *agent_.counters(), held[0]);
        compareRequests(1, *agent_.policers(), held[1]);
    }

    template <class Table>
    void compareRequests(std::size_t linkage, const Table& table,
                         const std::set<std::uint32_t>& held) {
        table.assertConsistent();
        std::set<std::uint32_t> known;
        for (const auto& info : table.keys()) {
            known.insert(info.key.requestId);
            world_.verdict.expect(held.contains(info.key.requestId),
                                  "a request that nobody holds is given back");
            world_.verdict.equal(info.users, families_[0]->users(linkage, info.key.requestId),
                                 "units that use a resource");
        }
        for (const std::uint32_t request : held) {
            if (families_[0]->users(linkage, request) > 0)
                world_.verdict.expect(known.contains(request), "a resource in use is allocated");
        }
    }

    World world_;
    TestSupport::InProcessAgent agent_;
    Setting setting_;
    std::size_t units_;
    std::array<std::unique_ptr<Family>, 2> families_;
    std::optional<KivShimo::AnnounceLogReader> reader_;
    std::uint64_t position_ = 0;
    struct Outstanding {
        std::uint64_t position;
        std::uint32_t table;
        std::uint64_t version;
    };
    std::deque<Outstanding> outstanding_;  ///< announced and not acknowledged
    bool pauseInMap_ = false;
    std::array<std::uint64_t, 2> inMap_{};  ///< what the hardware side says
    std::array<std::uint64_t, 2> taken_{};  ///< what the agent has taken up
};

}  // namespace

std::string run(const Sequence& sequence, Reached& reached) {
    Runner runner(sequence);
    std::string failure = runner.run(sequence);
    reached = runner.reached();
    return failure;
}

}  // namespace ModelTests
