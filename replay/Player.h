// Runs a recording again: the same inputs into tables made anew, in a directory of their own, and
// what comes out compared with what came out then.
//
// One thread; one player at a time in a process, as a process has one set of tables. Time stands
// where the recording says. The hardware side is what the recording says of it. Index pools run for
// real: what they answer is compared as well.
//
// What always holds:
//  1. Every input is given at the point of the sequence where it was recorded, what a handler did
//     from within that handler.
//  2. The first event that is not as recorded is the difference; nothing is done after it but what
//     the input under way still does.
//  3. What a killed process would still have done counts as no difference.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "agent/Plugin.h"
#include "agent/Tables.h"
#include "platform/kiv/EventLoop.h"
#include "platform/kivshimo/AckMap.h"
#include "recording/File.h"
#include "recording/Recorder.h"

namespace Replay {

/// Where a replay and its recording part.
struct Difference {
    std::size_t event = 0;             ///< its number in the recording, from 1
    std::chrono::nanoseconds time{0};  ///< since the start of its process
    std::string input;                 ///< that was under way
    std::string recorded;              ///< "nothing" where it came to an end
    std::string replayed;              ///< "nothing" where nothing came out any more
};

struct Result {
    std::size_t events = 0;  ///< of the recording that were gone through
    std::size_t starts = 0;
    std::size_t changes = 0;  ///< staged
    std::optional<Difference> difference;
    bool reachedTo = false;                      ///< stopped at `to`
    std::vector<Recording::Look::Row> versions;  ///< of the logs, where the tables stand at the end
};

/// A version at which to stop.
struct To {
    std::optional<std::uint32_t> table;  ///< nothing: of any
    std::uint64_t version = 0;
};

class Player final : private Recording::Sink {
public:
    struct Wishes {
        std::optional<To> to;
        /// Called before each input that no handler makes; ends the replay by false.
        std::function<bool(const Recording::Event&)> onInput;
        /// Called for each event as it comes out.
        std::function<void(const Recording::Event&)> onOutput;
    };

    /// `directory` is the replay's own: what is in it goes. Throws PluginError.
    Player(const Agent::Plugin& plugin, std::string directory);
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;
    ~Player() override;

    /// Throws Recording::FormatError where the recording is none that can be played, and as
    /// Agent::Tables.
    Result compare(const Recording::Contents& recording, const Wishes& wishes);
    /// Gives the inputs and returns them with what really comes out.
    Recording::Contents recordAnew(const Recording::Contents& recording);
    /// The end of the last process: its tables go in good order.
    void stop();

private:
    class Recorder;
    using Handle = Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>;

    void eventIs(const Recording::Buffer& event, std::chrono::nanoseconds time) override {
        told(event.bytes(), time);
    }
    void told(Recording::Bytes event, std::chrono::nanoseconds time);

    Result play(const Recording::Contents& recording, const Wishes& wishes);
    void performRange(std::size_t begin, std::size_t end, bool isTopLevel);
    void perform(std::size_t at);
    void performHandler(std::uint64_t number);
    std::size_t startProcess(std::size_t at);
    std::size_t endOfStart(std::size_t at) const;
    bool hasFailed(std::size_t at) const;
    std::size_t endOfHandler(std::size_t at, std::uint64_t number) const;
    void layOutFiles(std::size_t at, std::size_t end, const Recording::Start& start);
    void findRun(std::size_t at);

    void doIt(const Recording::Change& change);
    void doIt(const Recording::Turn& turn);
    void doIt(const Recording::Look& look);
    void doIt(const Recording::ResourceOperation& made);
    void doIt(const Recording::End& end);
    template <class Types>
    void change(VornPolicyCpu::TableOperations<Types>& table, const Recording::Change& change);

    void layOutMap(const Recording::Look& look);
    void mapWillBeRead(std::uint64_t call);
    void differs(std::string replayed);
    bool isOver() const;
    bool isDue(std::size_t at) const;
    Recording::Event eventAt(std::size_t at) const;
    [[noreturn]] void refuse(const std::string& why) const;

    Agent::Plugin plugin_;
    std::string directory_;
    Kiv::ManualEventLoop loop_;
    std::unique_ptr<Agent::Tables> tables_;
    std::unique_ptr<Recorder> recorder_;
    std::optional<KivShimo::AckMapWriter> map_;
    std::uint64_t mapNumber_ = 0;  ///< of the map that is laid out, as the recorder counts

    const Recording::Contents* recording_ = nullptr;
    const Wishes* wishes_ = nullptr;
    std::optional<Recording::Contents> anew_;  ///< where what comes out is kept, not compared
    std::size_t cursor_ = 0;                   ///< event that is to come out next
    std::size_t input_ = 0;                    ///< event that is under way
    std::size_t handlersDone_ = 0;
    bool starting_ = false;
    bool killed_ = false;  ///< the recorded process ended here; this one goes on to no avail
    bool stopped_ = false;
    Result result_;

    // Of the process under way, by its numbers of changes.
    std::unordered_set<std::uint64_t> dependedOn_;
    std::unordered_map<std::uint64_t, Handle> handles_;
    std::unordered_map<std::uint64_t, std::size_t> handlers_;  ///< where they begin
    std::unordered_map<std::uint64_t, std::uint32_t> tableOf_;
};

}  // namespace Replay
