#include "tests/simulator/World.h"

#include <algorithm>
#include <bit>

#include "platform/asic/Constants.h"
#include "platform/kivshimo/ReadPatience.h"

namespace Simulator {

namespace {

using ModelTests::Op;
using VornPolicyCpu::PolicyCpuTcamActionBinding;
using VornPolicyCpu::PolicyCpuV4TcamEntryBinding;
using VornPolicyCpu::PolicyCpuV6TcamEntryBinding;

constexpr std::size_t kUnits = 2;
constexpr unsigned kDependencies = 8;

TestSupport::InProcessAgent::Options optionsOf(const World::Sizes& sizes) {
    return {.capacityCeiling = sizes.slots, .counters = sizes.pool, .policers = sizes.pool};
}

std::uint64_t versionOf(const Told::Note& note) {
    std::uint64_t version = 0;
    std::memcpy(&version, note.bytes.data(), sizeof(version));
    return version;
}

}  // namespace

World::World(const Sizes& sizes)
    : sizes_(sizes),
      agent_(optionsOf(sizes)),
      setting_{agent_, world_, {}, sizes.keys},
      hardware_(agent_.root()),
      histories_{History<HwSide::ActionTypes>(world_.verdict),
                 History<HwSide::V4Types>(world_.verdict),
                 History<HwSide::V6Types>(world_.verdict)} {
    world_.room = {.records = std::bit_ceil(sizes.slots), .values = sizes.slots};
    world_.noted = [this](std::uint32_t table, std::span<const std::byte> carried) {
        note(table, carried);
    };
    families_[0] =
        std::make_unique<ModelTests::FamilyDriver<PolicyCpuTcamActionBinding>>(setting_, kUnits);
    families_[1] =
        std::make_unique<ModelTests::FamilyDriver<PolicyCpuV4TcamEntryBinding>>(setting_, kUnits);
    families_[2] =
        std::make_unique<ModelTests::FamilyDriver<PolicyCpuV6TcamEntryBinding>>(setting_, kUnits);
    KivShimo::readPatienceIs({});  // a store that was cut off stays so while a reader looks
    reader_ = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
        agent_.root(), Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName())));
}

World::~World() {
    for (const auto& family : families_)
        family->closeTables();
    KivShimo::readPatienceIs(KivShimo::kReadPatience);
}

const std::string& World::step(const Step& step) {
    ++figures_.steps;
    if (away_ > 0)
        --away_;
    switch (step.act) {
        case Act::command:
            act(step.command);
            break;
        case Act::arrive:
            arrive();
            break;
        case Act::pump:
            if (away_ == 0)
                pump(step.amount);
            break;
        case Act::stopHardware:
            away_ = step.amount;
            break;
        case Act::restartHardware:
        case Act::emptyHardware:
            restartHardware(step.act == Act::emptyHardware);
            break;
        case Act::restartAgent:
            restartAgent();
            break;
        case Act::killAgent:
        case Act::killAgentTwice:
            killAgent(step);
            break;
        case Act::killHardware:
            killHardware(step);
            break;
        case Act::settle:
            settle();
            break;
    }
    checkCheaply(step);
    return failure();
}

void World::act(const Command& command) {
    ModelTests::Family& family = *families_.at(command.family);
    switch (command.op) {
        case Op::write:
        case Op::remove:
        case Op::removeAll:
            family.stage(command);
            break;
        case Op::turn:
            agent_.loop().turn();
            break;
        case Op::settle:
            settleAgent();
            break;
        case Op::move:
        case Op::fail:
        case Op::recover:
            changeResource(command);
            break;
        case Op::openWalk:
        case Op::stepWalk:
            family.walk(command);
            break;
        case Op::update:
            family.update(command);
            break;
        case Op::clearTable:
            family.clear(command);
            break;
        case Op::pause:
        case Op::resume:
            pauseIs(command.op == Op::pause);
            break;
        default:
            expect(false, "a command that a simulation knows");
    }
    if (setting_.handles.size() > 4 * kDependencies) {
        setting_.handles.erase(setting_.handles.begin(), setting_.handles.end() - kDependencies);
    }
}

/// Nothing that may commit is left uncommitted, unless there is no room for announcements.
void World::settleAgent() {
    agent_.settle();
    if (world_.paused || !agent_.group()->hasRoom())
        return;
    for (const auto& family : families_)
        expect(family->idle(), "nothing that may commit is left uncommitted");
}

void World::changeResource(const Command& command) {
    const auto change = [&](auto& table, auto key) {
        key.requestId = command.key + 1;
        if (command.op == Op::move) {
            table.move(key);
        } else if (command.op == Op::fail) {
            table.fail(key);
        } else {
            table.restore(key);
        }
    };
    if (command.family == 0) {
        change(*agent_.counters(), VornCountersLib::CrpsIndexRequestEntryKey{});
    } else {
        change(*agent_.policers(), VornPolicerLib::PolicerIndexRequestEntryKey{});
    }
}

/// Asked for by the hardware side; the agent takes it up with the next acknowledgements.
void World::pauseIs(bool requested) {
    if (away_ == 0 && !isChild_)
        hardware_.acks().pauseRequestedIs(requested);
    arrive();
}

void World::arrive() {
    if (!isChild_)
        readAnnouncements();
    world_.paused = hardware_.acks().pauseRequested();
    bool isNew = false;
    for (std::size_t which = 0; which < kFamilies; ++which) {
        const std::uint64_t version =
            hardware_.acks().acknowledged(families_.at(which)->tableId()).value_or(0);
        if (version == taken_.at(which))
            continue;
        isNew = true;
        taken_.at(which) = version;
        families_.at(which)->acknowledged(version);
    }
    // Nobody may have rung: an agent that was about to sleep over it looks once more.
    if (isNew && !isChild_) {
        expect(!agent_.group()->sleepPrepared(), "no sleep over what was acknowledged");
        agent_.group()->awake();
    }
    agent_.group()->acknowledgementsArrived();
}

// Ends and starts of the agent.

void World::restartAgent() {
    ++figures_.agentRestarts;
    matchAnnouncements();
    Mapped(files(false)).letGo();
    endAgent();
    startAgent();
}

void World::endAgent() {
    setting_.handles.clear();
    for (const auto& family : families_)
        family->closeTables();
    agent_.stop();
    world_.changes.clear();
}

void World::startAgent() {
    agent_.start();
    taken_ = {};
    world_.paused = false;
    takeUpWhatWasCarriedOut();
    expectAnnouncementsAnew();
    for (std::size_t which = 0; which < kFamilies; ++which) {
        const std::uint32_t table = families_.at(which)->tableId();
        families_.at(which)->restarted(hardware_.acks().acknowledged(table).value_or(0));
    }
    agent_.counters()->sweepUnclaimed();
    agent_.policers()->sweepUnclaimed();
}

/// What was not announced yet comes in the order of its table. What the hardware side took from the
/// values, and so has acknowledged, does not come at all.
void World::expectAnnouncementsAnew() {
    readAnnouncements();
    for (ModelTests::Announced& announced : world_.announced)
        announced.anew = true;
    std::erase_if(world_.announced, [&](const ModelTests::Announced& announced) {
        return announced.version > announced_[announced.table] &&
               announced.version <= hardware_.acks().acknowledged(announced.table).value_or(0);
    });
}

/// Of changes in a row that come anew, and whose records were given up, only the last comes.
bool World::mayStayUnannounced(const ModelTests::Announced& announced) const {
    const auto family = std::find_if(families_.begin(), families_.end(), [&](const auto& each) {
        return each->tableId() == announced.table;
    });
    return announced.anew && !(*family)->hasRecord(announced.version);
}

/// The last change that a killed agent told of, by table.
std::uint64_t World::lastTold(std::size_t which) const {
    std::uint64_t last = families_.at(which)->version();
    for (const Told::Note& note : told_.notes()) {
        if (note.table == families_.at(which)->tableId())
            last = std::max(last, versionOf(note));
    }
    return last;
}

/// A remove-all is told of only when it is done: until then its record says so, which may be gone
/// when the agent is there again, if the hardware side has it.
void World::lookForRemoveAlls() {
    for (std::size_t which = 0; which < kFamilies; ++which) {
        if (!removedAll_.at(which).has_value())
            removedAll_.at(which) = families_.at(which)->removeAllInFile(lastTold(which) + 1);
    }
}

/// A change that a killed agent began is there whole or not at all; so are all before it.
void World::takeUpWhatWasCarriedOut() {
    std::array<std::uint64_t, kFamilies> mounted{};
    for (std::size_t which = 0; which < kFamilies; ++which)
        mounted.at(which) = families_.at(which)->mountedVersion();
    lookForRemoveAlls();
    for (std::size_t which = 0; which < kFamilies; ++which) {
        ModelTests::Family& family = *families_.at(which);
        const std::uint64_t last = lastTold(which);
        std::map<std::uint64_t, std::span<const std::byte>> byVersion;
        for (const Told::Note& note : told_.notes()) {
            if (note.table == family.tableId())
                byVersion[versionOf(note)] = note.bytes;
        }
        for (const auto& [version, bytes] : byVersion) {
            if (version > family.version() && version <= mounted.at(which))
                family.carriedOut(bytes);
        }
        if (family.version() < mounted.at(which) && removedAll_.at(which).has_value())
            family.removeAllCarriedOut(*removedAll_.at(which));
        world_.verdict.equal(mounted.at(which), family.version(), "version after a restart");
        expect(last <= mounted.at(which) + 1, "all but the last change outlive a kill");
    }
    if (!isChild_) {
        told_.clear();
        removedAll_ = {};
    }
}

void World::killAgent(const Step& step) {
    ++figures_.agentKills;
    matchAnnouncements();
    told_.clear();
    const Mapped before(files(false));
    std::string died = killedAt(step.stores, files(false), told_, [&] {
        isChild_ = true;
        for (const Command& command : step.commands)
            act(command);
        return failure();
    });
    expect(died.empty(), died);
    if (!failure().empty())
        return;
    before.letGo();
    endAgent();
    lookForRemoveAlls();
    if (away_ == 0) {
        pump(step.amount);
        if (step.between == 1 || step.between == 2)
            restartHardware(step.between == 2);
        pump(step.amount);
    }
    readAnnouncements();
    if (step.act == Act::killAgentTwice) {
        ++figures_.agentKillsTwice;
        died = killedAt(step.further, files(false), told_, [&] {
            isChild_ = true;
            startAgent();
            settleAgent();
            return failure();
        });
        expect(died.empty(), died);
        if (!failure().empty())
            return;
    }
    readAnnouncements();
    startAgent();
}

void World::note(std::uint32_t table, std::span<const std::byte> carried) {
    if (isChild_)
        told_.add(table, carried);
    const auto addTo = [&](auto& history) {
        typename std::remove_reference_t<decltype(history)>::Carried change;
        std::memcpy(&change, carried.data(), sizeof(change));
        history.add(change);
    };
    if (table == families_[0]->tableId()) {
        addTo(std::get<0>(histories_));
    } else if (table == families_[1]->tableId()) {
        addTo(std::get<1>(histories_));
    } else {
        addTo(std::get<2>(histories_));
    }
}

// The hardware side.

void World::pump(std::size_t budget) {
    hardwareKnown_ = hardware_.pump(budget) != HwSide::LogReader::Progress::again;
}

void World::restartHardware(bool isEmpty) {
    ++figures_.hardwareRestarts;
    hardware_.restart(isEmpty);
    hardwareKnown_ = hardwareKnown_ && !isEmpty;
}

/// The hardware that a killed process programmed is empty for the next one.
void World::killHardware(const Step& step) {
    ++figures_.hardwareKills;
    told_.clear();
    const Mapped before(files(true));
    const std::string died = killedAt(step.stores, files(true), told_, [&] {
        hardware_.pump(step.amount);
        return std::string();
    });
    expect(died.empty(), died);
    before.letGo();
    hardware_.restart(true);
    hardwareKnown_ = false;
}

void World::checkAcknowledgements() {
    for (const auto& [table, version] : hardware_.acks().all()) {
        std::uint64_t& before = acknowledged_[table];
        expect(version >= before, "an acknowledged version stays acknowledged");
        before = version;
    }
    expect(hardware_.acks().consumed() >= consumed_, "what is consumed stays consumed");
    consumed_ = hardware_.acks().consumed();
    for (const auto& family : families_) {
        expect(acknowledged_[family->tableId()] <= family->version(),
               "only what was published is acknowledged");
    }
}

void World::checkHardware() {
    if (!hardwareKnown_)
        return;
    const auto acknowledged = [&](std::size_t which) {
        return acknowledged_[families_.at(which)->tableId()];
    };
    std::get<0>(histories_).check(hardware_.tcam(), acknowledged(0), hardware_.acks());
    std::get<1>(histories_).check(hardware_.tcam(), acknowledged(1), hardware_.acks());
    std::get<2>(histories_).check(hardware_.tcam(), acknowledged(2), hardware_.acks());
}

// Both.

/// Everything comes to rest, and restarts find it so.
void World::settle() {
    ++figures_.settled;
    away_ = 0;
    pauseIs(false);
    comeToRest();
    if (!failure().empty())
        return;
    compareAtRest();
    // What a restart forgets (failures, uses without an entry) may change something once.
    restartAgent();
    comeToRest();
    const std::uint64_t before = restingAt();
    restartAgent();
    restartHardware(false);
    comeToRest();
    world_.verdict.equal(restingAt(), before,
                         "versions, and times that hardware was touched, after restarts");
}

void World::comeToRest() {
    for (int round = 0; round < 50 && !isSettled(); ++round) {
        settleAgent();
        readAnnouncements();
        pump(SIZE_MAX);
        arrive();
    }
    settleAgent();
    expect(isSettled(), "everything settles");
}

std::uint64_t World::restingAt() const {
    std::uint64_t sum = touched();
    for (const auto& family : families_)
        sum += family->version();
    return sum;
}

bool World::isSettled() {
    bool settled = hardware_.waiting() == 0 && hardwareKnown_ && agent_.loop().idle() &&
                   agent_.group()->announcementsWaiting() == 0;
    for (std::size_t which = 0; which < kFamilies; ++which) {
        const ModelTests::Family& family = *families_.at(which);
        settled = settled && taken_.at(which) == family.version();
        settled = settled && families_.at(which)->idle();
    }
    return settled && hardware_.acks().consumed() == reader_->tail();
}

void World::compareAtRest() {
    checkAcknowledgements();
    checkHardware();
    compare();
    expect(agent_.group()->sleepPrepared(), "nothing is left to take up before a sleep");
    agent_.group()->awake();
    comparePoolAtRest(*agent_.counters());
    comparePoolAtRest(*agent_.policers());
}

/// Times that hardware was touched.
std::uint64_t World::touched() const {
    const auto of = [](const HwSide::ProgramCounters& counters) {
        return counters.programmed() + counters.removed;
    };
    const HwSide::Tcam& tcam = hardware_.tcam();
    return of(tcam.counters<HwSide::ActionTypes>()) + of(tcam.counters<HwSide::V4Types>()) +
           of(tcam.counters<HwSide::V6Types>());
}

/// Takes announcements off before the agent writes over them.
void World::readAnnouncements() {
    while (auto announcement = reader_->next(position_ + 1)) {
        position_ = announcement->position;
        std::uint64_t& last = announced_[announcement->tableId];
        expect(announcement->version > last, "announced versions never repeat or go back");
        last = announcement->version;
        const bool isOurs = std::any_of(families_.begin(), families_.end(), [&](const auto& each) {
            return each->tableId() == announcement->tableId;
        });
        if (isOurs)
            unmatched_.push_back(std::move(*announcement));
    }
}

void World::matchAnnouncements() {
    readAnnouncements();
    for (const KivShimo::Announcement& announcement : unmatched_)
        matchAnnouncement(announcement);
    unmatched_.clear();
}

void World::matchAnnouncement(const KivShimo::Announcement& announcement) {
    auto& expected = world_.announced;
    std::erase_if(expected, [&](const ModelTests::Announced& each) {
        return each.table == announcement.tableId && each.version < announcement.version &&
               mayStayUnannounced(each);
    });
    auto at = expected.begin();
    while (at != expected.end() && at->anew && at->table != announcement.tableId)
        ++at;
    const std::string what =
        fmt::format("announcement of {:08x} {}", announcement.tableId, announcement.version);
    if (at == expected.end() || at->table != announcement.tableId ||
        at->version != announcement.version) {
        expect(false, what);
        return;
    }
    ModelTests::Needed needed;
    for (const auto& each : announcement.needed)
        ModelTests::need(needed, each.tableId, each.version);
    // One that had to wait for room may need more than it did: what those beside it needed as well.
    const bool isCovered = std::ranges::all_of(at->needed, [&](const auto& wanted) {
        const auto there = needed.find(wanted.first);
        return there != needed.end() && there->second >= wanted.second;
    });
    expect(at->anew || isCovered, what + " and its needs");
    expected.erase(at);
}

void World::checkCheaply(const Step& step) {
    matchAnnouncements();
    if (!world_.announced.empty()) {
        const auto missing =
            std::count_if(world_.announced.begin(), world_.announced.end(),
                          [&](const auto& announced) { return !mayStayUnannounced(announced); });
        expect(static_cast<std::size_t>(missing) <= agent_.group()->announcementsWaiting(),
               "every change is announced");
    }
    const std::uint64_t done = figures_.steps;
    families_.at(done % kFamilies)
        ->compareKey(done / kFamilies % kUnits,
                     static_cast<unsigned>(done / (kFamilies * kUnits) % sizes_.keys));
    if (step.act == Act::command) {
        if (step.command.key < sizes_.keys)
            families_.at(step.command.family)->compareKey(step.command.unit, step.command.key);
        return;
    }
    checkAcknowledgements();
    if (done % 8 == 0)
        checkHardware();
}

const std::string& World::compare() {
    matchAnnouncements();
    checkHardware();
    for (const auto& family : families_)
        family->compare();
    std::array<std::set<std::uint32_t>, 2> held;
    for (const auto& family : families_)
        family->held(held);
    compareRequests(0, *agent_.counters(), held[0]);
    compareRequests(1, *agent_.policers(), held[1]);
    return failure();
}

template <class Table>
void World::compareRequests(std::size_t linkage, const Table& table,
                            const std::set<std::uint32_t>& held) {
    table.assertConsistent();
    std::set<std::uint32_t> known;
    for (const auto& info : table.keys()) {
        known.insert(info.key.requestId);
        expect(held.contains(info.key.requestId), "a request that nobody holds is given back");
        world_.verdict.equal(info.users, families_[0]->users(linkage, info.key.requestId),
                             "units that use a resource");
    }
    for (const std::uint32_t request : held) {
        if (families_[0]->users(linkage, request) > 0)
            expect(known.contains(request), "a resource in use is allocated");
    }
}

template <class Table>
void World::comparePoolAtRest(const Table& table) {
    std::uint32_t indexed = 0;
    for (const auto& info : table.keys())
        indexed += info.state != Asic::EntryState::exhausted ? 1 : 0;
    world_.verdict.equal(table.pool().used, indexed, "indexes in use");
    world_.verdict.equal(table.pool().returning, 0U, "indexes that return for ever");
    expect(indexed == table.entries() || indexed == sizes_.pool,
           "nothing is exhausted while an index is free");
}

Files World::files(bool isHardwareSide) const {
    return {agent_.root(),
            KivShimo::tableFile(agent_.root(), HwSide::Group::acknowledgementsPath()),
            isHardwareSide};
}

Figures World::figures() const {
    Figures figures = figures_;
    figures.commits = world_.reached.commits;
    figures.answers = world_.reached.answers;
    figures.updates = world_.reached.updates;
    figures.failures = world_.reached.resolveFailures + world_.reached.dependencyFailures;
    const HwSide::LogReader::Counters counters = hardware_.total();
    figures.announcements = counters.announcements;
    figures.snapshots = counters.snapshots;
    figures.lostRecords = counters.lost;
    return figures;
}

std::uint64_t World::digest() const {
    std::uint64_t digest = position_ * 31 + consumed_;
    for (const auto& family : families_)
        digest = digest * 31 + family->version();
    return digest * 31 + touched();
}

}  // namespace Simulator
