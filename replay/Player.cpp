#include "replay/Player.h"

#include <algorithm>
#include <bit>
#include <filesystem>
#include <limits>
#include <utility>

#include <fmt/format.h>

#include "agent/Record.h"
#include "platform/asic/Constants.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/Paths.h"
#include "recording/Names.h"
#include "recording/PackedEntry.h"
#include "recording/Snapshot.h"
#include "recording/Text.h"
#include "types/Constants.h"
#include "types/EntryImage.h"

namespace Replay {

using Recording::Change;
using Recording::Event;
using Recording::FormatError;
using Recording::is;
using Recording::Look;

namespace {

constexpr const char* kSystem = "replay";

std::string mapFile(const std::string& directory) {
    return KivShimo::tableFile(
        directory, Asic::Constants::acknowledgementsPath(VornPolicyCpu::canonicalGroupName()));
}

/// What the map is to say whose announcements it speaks of.
std::uint64_t identityFor(Look::Log log, const std::string& directory) {
    if (log != Look::Log::thisOne)
        return log == Look::Log::none ? 0 : KivShimo::kNoAnnounceLog;
    const auto announcements = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
        directory, Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName())));
    return announcements ? announcements->identity() : 0;
}

Agent::Options optionsOf(const Recording::Start& start, const std::string& directory) {
    Agent::Options options;
    for (const std::uint16_t unit : start.units)
        options.units.push_back({unit});
    options.counters = start.counters;
    options.policers = start.policers;
    options.capacity = start.capacity;
    options.stateDirectory = directory;
    return options;
}

/// The files of a directory, kept as events.
Recording::Contents filesOf(const std::string& directory) {
    Recording::Contents files;
    Recording::forEachFile(directory, [&](const Recording::File& file) {
        Recording::Buffer buffer;
        Recording::encode(file, buffer);
        files.add(buffer.bytes(), {});
    });
    return files;
}

}  // namespace

/// Tells the player where the agent is about to look at the hardware side's map.
class Player::Recorder final : public Recording::Recorder {
public:
    explicit Recorder(Player& player)
        : Recording::Recorder(player.loop_, player), player_(player) {}
    void mapWillBeRead() override {
        Recording::Recorder::mapWillBeRead();
        player_.mapWillBeRead(calls());
    }

private:
    Player& player_;
};

Player::Player(const Agent::Plugin& plugin, std::string directory)
    : plugin_(plugin), directory_(std::move(directory)) {}

Player::~Player() {
    stop();
}

void Player::stop() {
    handles_.clear();
    recorder_.reset();
    tables_.reset();
    loop_.clear();
    KivShimo::EntityManager::forget(kSystem);  // the next process mounts its own files
    map_.reset();
    mapNumber_ = 0;
}

Result Player::compare(const Recording::Contents& recording, const Wishes& wishes) {
    anew_.reset();
    return play(recording, wishes);
}

Recording::Contents Player::recordAnew(const Recording::Contents& recording) {
    anew_.emplace();
    handlersDone_ = 0;
    play(recording, {});
    std::size_t handlers = 0;
    for (const Recording::Recorded& recorded : recording.events()) {
        const Event event = Recording::decode(recorded.bytes);
        const auto* const handler = std::get_if<Recording::Handler>(&event);
        handlers += handler != nullptr && handler->runs ? 1 : 0;
    }
    if (handlers != handlersDone_) {
        throw FormatError(
            fmt::format("{} of {} answers did not come: what their handlers do would "
                        "be lost",
                        handlers - handlersDone_, handlers));
    }
    return std::move(*std::exchange(anew_, std::nullopt));
}

Result Player::play(const Recording::Contents& recording, const Wishes& wishes) {
    recording_ = &recording;
    wishes_ = &wishes;
    cursor_ = input_ = 0;
    killed_ = stopped_ = false;
    result_ = {};
    performRange(0, recording.events().size(), true);
    if (!isOver() && !anew_ && !isDue(recording.events().size()))
        differs("nothing");
    result_.events = anew_ ? recording.events().size() : cursor_;
    if (tables_ != nullptr)
        result_.versions = Agent::Record::mountedOf(*tables_).versions;
    return result_;
}

bool Player::isOver() const {
    return stopped_ || result_.difference.has_value();
}

Event Player::eventAt(std::size_t at) const {
    return Recording::decode(recording_->events().at(at).bytes);
}

void Player::refuse(const std::string& why) const {
    throw FormatError(fmt::format("event {}: {}", input_ + 1, why));
}

/// Whether all has come out that was recorded before an event; that a handler begins is told when
/// it does something.
bool Player::isDue(std::size_t at) const {
    for (std::size_t before = cursor_; before < at; ++before) {
        const Event event = eventAt(before);
        const auto* const handler = std::get_if<Recording::Handler>(&event);
        if (handler == nullptr || !handler->runs)
            return false;
    }
    return true;
}

/// Gives the inputs of a part of the recording; those of handlers in it are left to the handlers.
void Player::performRange(std::size_t begin, std::size_t end, bool isTopLevel) {
    for (std::size_t at = begin; at < end && !isOver();) {
        const Event event = eventAt(at);
        if (const auto* const handler = std::get_if<Recording::Handler>(&event)) {
            const std::uint64_t number = handler->number;
            at = std::min(endOfHandler(at, number), end);
            continue;
        }
        if (!Recording::isInput(event)) {
            ++at;
            continue;
        }
        if (killed_ && !is<Recording::Start>(event)) {
            ++at;
            continue;
        }
        if (!anew_ && is<Look>(event) && at < cursor_) {
            ++at;  // the look before has found that map itself
            continue;
        }
        input_ = at;
        if (!anew_ && !isDue(at)) {
            differs("nothing");
            return;
        }
        if (!isTopLevel && !is<Change>(event) && !is<Recording::ResourceOperation>(event) &&
            !is<Recording::Note>(event))
            refuse("no handler does that");
        if (isTopLevel && wishes_->onInput && !wishes_->onInput(event)) {
            stopped_ = true;
            return;
        }
        if (is<Recording::Start>(event)) {
            at = startProcess(at);
        } else {
            perform(at);
            ++at;
        }
    }
}

void Player::perform(std::size_t at) {
    const Event event = eventAt(at);
    if (is<Recording::Note>(event)) {
        told(recording_->events()[at].bytes, loop_.turnTime());
        return;
    }
    if (tables_ == nullptr)
        refuse("no process has begun");
    loop_.turnTimeIs(recording_->events()[at].time);
    std::visit(
        [this]<class Kind>(const Kind& input) {
            if constexpr (requires { doIt(input); })
                doIt(input);
        },
        event);
}

/// Behind the end of a handler that begins at `at`; a kill may have ended it, and a process begins
/// there.
std::size_t Player::endOfHandler(std::size_t at, std::uint64_t number) const {
    while (++at < recording_->events().size()) {
        const Event event = eventAt(at);
        if (is<Recording::Start>(event))
            return at;
        const auto* const handler = std::get_if<Recording::Handler>(&event);
        if (handler != nullptr && handler->number == number && !handler->runs)
            return at + 1;
    }
    return at;
}

/// Called by the handler of a change; what it then does stands behind where it begins.
void Player::performHandler(std::uint64_t number) {
    const auto found = handlers_.find(number);
    if (found == handlers_.end() || killed_ || isOver())
        return;
    ++handlersDone_;
    const std::size_t outer = input_;
    performRange(found->second + 1, endOfHandler(found->second, number), false);
    input_ = outer;
}

// A process.

/// Where the start that begins at `at` ends: behind the files, and behind what the process read and
/// told until its tables stood. Nothing where it did not come so far.
std::size_t Player::endOfStart(std::size_t at) const {
    const std::size_t size = recording_->events().size();
    std::size_t files = at + 1;
    while (files < size && is<Recording::File>(eventAt(files)))
        ++files;
    std::size_t stands = files;
    while (stands < size && (is<Look>(eventAt(stands)) || !Recording::isInput(eventAt(stands))) &&
           !is<Recording::Mounted>(eventAt(stands)))
        ++stands;
    return stands < size && is<Recording::Mounted>(eventAt(stands)) ? stands + 1 : files;
}

/// Whether the process that begins at `at` never had its tables: they could not be made, or it was
/// killed before. It has left nothing that somebody could find.
bool Player::hasFailed(std::size_t at) const {
    for (++at; at < recording_->events().size(); ++at) {
        const Event event = eventAt(at);
        if (is<Recording::Start>(event))
            return true;
        const bool isOfStart = is<Recording::File>(event) || is<Look>(event) ||
                               is<Recording::OwnChange>(event) || is<Recording::State>(event) ||
                               is<Recording::End>(event) || is<Recording::Note>(event);
        if (!isOfStart)
            return false;
    }
    return true;
}

/// What belongs to the process that begins here, by the numbers of its changes.
void Player::findRun(std::size_t at) {
    dependedOn_.clear();
    handlers_.clear();
    tableOf_.clear();
    for (++at; at < recording_->events().size(); ++at) {
        const Event event = eventAt(at);
        if (is<Recording::Start>(event))
            return;
        if (const auto* const change = std::get_if<Change>(&event); change != nullptr) {
            tableOf_[change->number] = change->table;
            if (change->dependency != 0)
                dependedOn_.insert(change->dependency);
        } else if (const auto* const own = std::get_if<Recording::OwnChange>(&event)) {
            tableOf_[own->number] = own->table;
        } else if (const auto* const handler = std::get_if<Recording::Handler>(&event);
                   handler != nullptr && handler->runs) {
            handlers_.emplace(handler->number, at);
        }
    }
}

/// The directory becomes what the start says. A process that did not end is taken for killed: its
/// files are as they were before its tables went.
void Player::layOutFiles(std::size_t at, std::size_t end, const Recording::Start& start) {
    std::optional<Recording::Contents> left;
    if (start.onOwnFiles && tables_ != nullptr)
        left = filesOf(directory_);
    stop();
    if (start.onOwnFiles && !left)
        return;
    for (const auto& entry : std::filesystem::directory_iterator(directory_))
        std::filesystem::remove_all(entry.path());
    const auto layOut = [this](const Recording::Recorded& recorded) {
        const Event event = Recording::decode(recorded.bytes);
        if (const auto* const file = std::get_if<Recording::File>(&event); file != nullptr)
            Recording::layOut(*file, directory_);
    };
    if (left) {
        std::ranges::for_each(left->events(), layOut);
        return;
    }
    const auto& events = recording_->events();
    std::for_each(events.begin() + static_cast<long>(at), events.begin() + static_cast<long>(end),
                  layOut);
}

/// Returns where the recording goes on behind the start.
std::size_t Player::startProcess(std::size_t at) {
    const Event event = eventAt(at);
    const auto& start = std::get<Recording::Start>(event);
    if (!anew_ && hasFailed(at)) {
        stop();
        ++result_.starts;
        for (++at; at < recording_->events().size() && !is<Recording::Start>(eventAt(at));)
            ++at;
        return cursor_ = at;
    }
    const std::size_t end = endOfStart(at);
    killed_ = false;
    ++result_.starts;
    findRun(at);
    layOutFiles(at, end, start);
    std::size_t files = at;
    for (; files == at || (files < end && is<Recording::File>(eventAt(files))); ++files)
        told(recording_->events()[files].bytes, {});
    loop_.turnTimeIs({});
    // Of the process before, where this one has none.
    if (start.capacity == 0)
        KivShimo::EntityManager::capacityCeilingIs(std::numeric_limits<std::uint64_t>::max());
    starting_ = true;
    recorder_ = std::make_unique<Recorder>(*this);
    tables_ =
        std::make_unique<Agent::Tables>(optionsOf(start, directory_), plugin_, loop_, kSystem);
    starting_ = false;
    recorder_->mounted(Agent::Record::mountedOf(*tables_));
    return anew_ ? end : std::max(end, cursor_);
}

void Player::doIt(const Recording::End& end) {
    recorder_->tell(end);
    stop();
}

void Player::doIt(const Recording::Turn& /*turn*/) {
    if (!loop_.idle())
        loop_.turnOnce();
}

void Player::doIt(const Recording::ResourceOperation& made) {
    const auto operate = [&]<class Pool>(Pool& pool) {
        const auto key = std::bit_cast<typename Pool::Key>(made.key);
        switch (made.operation) {
            case Recording::ResourceOperation::Operation::move:
                pool.move(key);
                break;
            case Recording::ResourceOperation::Operation::fail:
                pool.fail(key);
                break;
            case Recording::ResourceOperation::Operation::restore:
                pool.restore(key);
                break;
            case Recording::ResourceOperation::Operation::sweep:
                pool.sweepUnclaimed();
                break;
        }
    };
    if (made.table == tables_->counters().tableId().whole()) {
        operate(tables_->counters());
    } else if (made.table == tables_->policers().tableId().whole()) {
        operate(tables_->policers());
    } else {
        refuse(Recording::tableName(made.table) + " is no pool");
    }
}

// Changes.

void Player::doIt(const Change& made) {
    ++result_.changes;
    const auto unit = std::ranges::find_if(tables_->units(), [&](const Agent::UnitTables& each) {
        return each.unit.value == made.unit;
    });
    if (unit == tables_->units().end())
        refuse(fmt::format("there is no unit {}", made.unit));
    if (made.table == Agent::ActionTypes::kTableId.whole()) {
        change(*unit->actions, made);
    } else if (made.table == Agent::V4Types::kTableId.whole()) {
        change(*unit->ipv4, made);
    } else if (made.table == Agent::V6Types::kTableId.whole()) {
        change(*unit->ipv6, made);
    } else {
        refuse(Recording::tableName(made.table) + " is no table of entries");
    }
}

template <class Types>
void Player::change(VornPolicyCpu::TableOperations<Types>& table, const Change& made) {
    if (made.dependency == Change::kForeign)
        refuse("the change waits for something that was not recorded");
    Handle dependency;
    if (made.dependency != 0) {
        const auto found = handles_.find(made.dependency);
        if (found == handles_.end())
            refuse(fmt::format("there is no change #{} before", made.dependency));
        dependency = found->second;
    }
    Asic::OrderedSwTable::ResponseHandler handler;
    if (made.hasHandler)
        handler = [this, number = made.number](const Handle&) { performHandler(number); };
    const auto key = std::bit_cast<typename Types::Key>(made.key);
    Handle handle;
    if (made.operation == Change::Operation::removeAll) {
        table.removeAll(dependency, handler);
    } else if (made.operation == Change::Operation::remove) {
        handle = table.remove(key, dependency, handler);
    } else {
        const auto entry =
            VornPolicyCpu::EntryImage<Types>::entryOf(Recording::unpackedEntry(made.entry));
        if (!entry)
            refuse("the entry is of another size");
        handle = table.write(key, *entry, dependency, handler);
    }
    if (dependedOn_.contains(made.number))
        handles_.emplace(made.number, std::move(handle));
}

// The hardware side.

/// Before it sleeps an agent looks whether its map was replaced.
void Player::doIt(const Look& look) {
    const bool isReplaced = look.map != mapNumber_;
    layOutMap(look);
    Asic::GroupInterface& group = tables_->group();
    if (isReplaced) {
        static_cast<void>(group.sleepPrepared());
        group.awake();
    }
    group.acknowledgementsArrived();
}

/// What was read then stands next in the recording: while a process starts, and where it finds
/// another map in the middle of a look.
void Player::mapWillBeRead(std::uint64_t call) {
    if (isOver() || killed_ || (anew_ && !starting_))
        return;
    std::size_t at = anew_ ? input_ + 1 : cursor_;
    const std::size_t end =
        anew_ ? endOfStart(input_) : std::min(at + 1, recording_->events().size());
    for (; at < end; ++at) {
        const Event event = eventAt(at);
        const auto* const look = std::get_if<Look>(&event);
        if (look == nullptr)
            continue;
        // One that was written by hand is as good for all looks of a start.
        const bool isDue =
            starting_ ? look->call == 0 || look->call == call : look->map != mapNumber_;
        if (isDue)
            layOutMap(*look);
    }
}

/// The map becomes what the look says of it; another map takes its place where the look says so.
void Player::layOutMap(const Look& look) {
    if (map_ && look.map != mapNumber_ && mapNumber_ != 0) {
        map_.reset();
        std::filesystem::remove(mapFile(directory_));
    }
    if (!map_) {
        map_.emplace(directory_,
                     Asic::Constants::acknowledgementsPath(VornPolicyCpu::canonicalGroupName()));
    }
    mapNumber_ = look.map;
    map_->announceIdentityIs(identityFor(look.log, directory_));
    for (const KivShimo::Acknowledged& row : map_->all()) {
        const bool stays =
            !look.isWhole || std::ranges::any_of(look.rows, [&](const Look::Row& wanted) {
                return wanted.table == row.tableId && wanted.version >= row.version;
            });
        if (!stays)
            map_->forget(row.tableId);
    }
    for (const Look::Row& row : look.rows)
        map_->ackIs(row.table, row.version);
    map_->consumedIs(look.consumed);
    map_->pauseRequestedIs(look.pauseRequested);
}

// What comes out.

void Player::told(Recording::Bytes bytes, std::chrono::nanoseconds time) {
    if (isOver() || killed_)
        return;
    const Event event = Recording::decode(bytes);
    if (anew_) {
        anew_->add(bytes, time);
        return;
    }
    const auto& events = recording_->events();
    if (cursor_ == events.size()) {
        killed_ = true;  // the recording ends in the middle of what the process did
        return;
    }
    if (!Recording::sameBytes(events[cursor_].bytes, bytes)) {
        if (is<Recording::Start>(eventAt(cursor_))) {
            killed_ = true;
            return;
        }
        differs(Recording::firstLineOf(event));
        return;
    }
    ++cursor_;
    if (wishes_->onOutput && !Recording::isInput(event))
        wishes_->onOutput(event);
    const auto* const state = std::get_if<Recording::State>(&event);
    if (state == nullptr || !wishes_->to || state->version < wishes_->to->version)
        return;
    const auto table = tableOf_.find(state->number);
    if (!wishes_->to->table || (table != tableOf_.end() && table->second == *wishes_->to->table)) {
        result_.reachedTo = true;
        stopped_ = true;
    }
}

void Player::differs(std::string replayed) {
    const auto& events = recording_->events();
    Difference difference;
    difference.event = std::min(cursor_, events.size()) + 1;
    difference.input = Recording::firstLineOf(eventAt(input_));
    difference.recorded =
        cursor_ < events.size() ? Recording::firstLineOf(eventAt(cursor_)) : "nothing";
    difference.replayed = std::move(replayed);
    if (cursor_ < events.size())
        difference.time = events[cursor_].time;
    result_.difference = std::move(difference);
}

}  // namespace Replay
