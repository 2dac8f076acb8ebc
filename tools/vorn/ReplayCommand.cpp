// vorn replay: what an agent recorded, run again, as text, and from text.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "platform/brumo/Trace.h"
#include "recording/Names.h"
#include "recording/Text.h"
#include "replay/Player.h"
#include "tools/vorn/Session.h"
#include "tools/vorn/Subprocess.h"

namespace Vorn {

namespace {

namespace fs = std::filesystem;

struct ReplayWishes {
    std::string file;
    std::string to;
    bool step = false;
    bool text = false;
    bool update = false;
    std::string binary;
    std::string keep;
    std::string plugin;
};

[[noreturn]] void throwErrno(const std::string& path, const char* operation) {
    throw std::system_error(errno, std::generic_category(), path + ": " + operation);
}

volatile std::sig_atomic_t interruption = 0;

/// The replay ends before its next input, and its files go: they may fill a large part of memory.
void catchInterruptions() {
    struct sigaction action {};
    action.sa_handler = [](int signal) { interruption = signal; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(signal, &action, nullptr);  // reading a line ends as well
}

/// A directory for the files of a replay, which goes with it unless somebody wants to keep it.
class Place {
public:
    explicit Place(const std::string& keep) : isKept_(!keep.empty()), path_(keep) {
        if (isKept_) {
            std::error_code error;
            fs::create_directory(keep, error);
            if (error || !fs::is_directory(keep) || !fs::is_empty(keep)) {
                throw Inspect::QuestionError(
                    fmt::format("--keep {}: expected a directory that is new or empty", keep));
            }
            return;
        }
        // Tables are memory: a disk would only slow them down.
        const bool hasMemory = ::access("/dev/shm", W_OK) == 0;
        path_ =
            (hasMemory ? fs::path("/dev/shm") : fs::temp_directory_path()) / "vorn-replay-XXXXXX";
        if (::mkdtemp(path_.data()) == nullptr)
            throwErrno(path_, "make directory");
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() {
        std::error_code ignored;  // somebody else's clearing up is as good
        if (!isKept_)
            fs::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }

private:
    bool isKept_;
    std::string path_;
};

/// The library beside this program, or where it is installed.
std::string pluginPath(const ReplayWishes& wishes) {
    constexpr const char* kLibrary = "libVornPolicyCpu.so";
    if (!wishes.plugin.empty())
        return wishes.plugin;
    const fs::path folder = fs::path(ownProgram()).parent_path();
    for (const fs::path& place :
         {folder / kLibrary, folder.parent_path() / VORN_LIBDIR / kLibrary}) {
        if (fs::exists(place))
            return place;
    }
    throw Inspect::QuestionError(
        fmt::format("{} is not beside this program; say where it is by --plugin", kLibrary));
}

/// "12" or "v4:12".
Replay::To toOf(const std::string& text) {
    Replay::To to;
    const std::size_t colon = text.find(':');
    const std::string number = text.substr(colon == std::string::npos ? 0 : colon + 1);
    if (colon != std::string::npos) {
        to.table = Recording::tableOfName(text.substr(0, colon));
        if (!to.table)
            throw Inspect::QuestionError(fmt::format("--to {}: no such table", text));
    }
    if (number.empty() || number.size() > 18 ||
        number.find_first_not_of("0123456789") != std::string::npos) {
        throw Inspect::QuestionError(
            fmt::format("--to {}: expected a version, as 12 or v4:12", text));
    }
    to.version = std::stoull(number);
    return to;
}

/// Shows each input before it is given, and waits for a line on stdin.
Replay::Player::Wishes playerWishes(Session& session, const ReplayWishes& wishes) {
    Replay::Player::Wishes player;
    if (!wishes.to.empty())
        player.to = toOf(wishes.to);
    if (!wishes.step) {
        player.onInput = [](const Recording::Event&) { return interruption == 0; };
        return player;
    }
    player.onInput = [&session](const Recording::Event& event) {
        session.out().line("> " + Recording::firstLineOf(event));
        if (Recording::is<Recording::File>(event))
            return true;
        std::fflush(stdout);
        std::string line;
        return std::getline(std::cin, line) && line != "q" && interruption == 0;
    };
    player.onOutput = [&session](const Recording::Event& event) {
        session.out().line("  " + Recording::firstLineOf(event));
    };
    return player;
}

double secondsOf(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

Json toJson(const ReplayWishes& wishes, const Replay::Result& result, const std::string& damage) {
    Json versions = Json::object();
    for (const auto& row : result.versions)
        versions[Recording::tableName(row.table)] = row.version;
    Json document{{"source", "recording"},
                  {"file", wishes.file},
                  {"events", result.events},
                  {"starts", result.starts},
                  {"changes", result.changes},
                  {"stopped", result.reachedTo},
                  {"versions", std::move(versions)},
                  {"difference", nullptr},
                  {"unreadable", nullptr}};
    if (!damage.empty())
        document["unreadable"] = damage;
    if (const auto& difference = result.difference) {
        document["difference"] = {{"event", difference->event},
                                  {"seconds", secondsOf(difference->time)},
                                  {"input", difference->input},
                                  {"recorded", difference->recorded},
                                  {"replayed", difference->replayed}};
    }
    return document;
}

void print(const Output& out, const Replay::Result& result, const std::string& damage) {
    if (const auto& difference = result.difference) {
        out.line(fmt::format("difference at event {}, {:.6f} s after the start", difference->event,
                             secondsOf(difference->time)));
        out.line("  input:     " + shown(difference->input));
        out.line("  recorded:  " + shown(difference->recorded));
        out.line("  replayed:  " + shown(difference->replayed));
    } else {
        out.line(fmt::format("{}: {} events, {} starts, {} changes",
                             result.reachedTo ? "as recorded so far" : "as recorded", result.events,
                             result.starts, result.changes));
    }
    std::string logs;
    for (const auto& row : result.versions)
        logs += fmt::format("{}{} {}", logs.empty() ? "" : ", ", Recording::tableName(row.table),
                            row.version);
    if (!logs.empty())
        out.line("logs stand at: " + logs);
    if (!damage.empty())
        out.line("not read: " + damage);
}

int play(Session& session, const ReplayWishes& wishes, const Recording::Contents& recording) {
    const Replay::Player::Wishes playerWish = playerWishes(session, wishes);
    const Agent::Plugin plugin = Agent::loadPlugin(pluginPath(wishes));
    catchInterruptions();
    const Place place(wishes.keep);
    Replay::Result result;
    {
        Replay::Player player(plugin, place.path());
        result = player.compare(recording, playerWish);
    }
    const bool isFound = result.difference.has_value() || !recording.damage().empty();
    if (session.json) {
        session.out().json(toJson(wishes, result, recording.damage()));
    } else {
        print(session.out(), result, recording.damage());
    }
    if (interruption != 0)
        return 128 + interruption;
    return isFound ? kFound : kDone;
}

void writeBinary(const std::string& file, const Recording::Contents& recording) {
    std::error_code none;
    if (fs::exists(file, none))
        throw Inspect::QuestionError(file + ": is there already");
    Recording::FileWriter writer(file);
    for (const Recording::Recorded& event : recording.events())
        writer.eventIs(Recording::Buffer(event.bytes), event.time);
    if (!writer.failure().empty())
        throw std::runtime_error(writer.failure());
}

/// The scenario with what really comes out, in place of the one before.
void update(const ReplayWishes& wishes, const Recording::Contents& recording) {
    if (recording.isBinary())
        throw Inspect::QuestionError(wishes.file + ": is no text; make one by --text");
    const Agent::Plugin plugin = Agent::loadPlugin(pluginPath(wishes));
    const Place place("");
    std::string text;
    {
        Replay::Player player(plugin, place.path());
        text = Recording::textOf(player.recordAnew(recording));
    }
    const std::string beside = wishes.file + ".new";
    std::ofstream out(beside, std::ios::binary | std::ios::trunc);
    out << text << std::flush;
    if (!out)
        throwErrno(beside, "write");
    out.close();
    if (std::rename(beside.c_str(), wishes.file.c_str()) != 0)
        throwErrno(wishes.file, "replace");
}

int replay(Session& session, const ReplayWishes& wishes) try {
    // What the tables say of failures is of the recording; VORN_TRACE asks for more.
    if (std::getenv("VORN_TRACE") == nullptr)
        Brumo::traceFilterIs("");
    const Recording::Contents recording = Recording::Contents::ofFile(wishes.file);
    if (wishes.text) {
        session.out().raw(Recording::textOf(recording));
        if (recording.damage().empty())
            return kDone;
        session.out().note(fmt::format("not read: {}", recording.damage()));
        return kFound;
    }
    if (!wishes.binary.empty()) {
        writeBinary(wishes.binary, recording);
        return kDone;
    }
    if (wishes.update) {
        update(wishes, recording);
        return kDone;
    }
    return play(session, wishes, recording);
} catch (const Recording::FormatError& error) {
    const std::string reason = error.what();
    throw Inspect::QuestionError(reason.starts_with(wishes.file) ? reason
                                                                 : wishes.file + ": " + reason);
}

}  // namespace

void addReplayCommand(CLI::App& app, Session& session) {
    static ReplayWishes wishes;
    CLI::App* const command = addCommand(
        app, session, "replay", "run what an agent recorded again, and compare what comes out",
        [&session] { return replay(session, wishes); });
    command->group("Recordings");
    command->add_option("FILE", wishes.file, "recording (vorn-agent --record), or its text")
        ->required();
    command->add_option("--to", wishes.to, "stop at this version of a log: 12, or v4:12")
        ->option_text("VERSION");
    command->add_flag("--step", wishes.step, "wait for a line before each input; q ends");
    CLI::Option* const text =
        command->add_flag("--text", wishes.text, "print the recording as text, run nothing");
    command->add_option("--binary", wishes.binary, "write the text as a recording, run nothing")
        ->option_text("OUT")
        ->excludes(text);
    command
        ->add_flag("--update", wishes.update, "make what comes out now what the text FILE expects")
        ->excludes(text);
    command->add_option("--keep", wishes.keep, "leave the files of the replay in this directory")
        ->option_text("DIR");
    command->add_option("--plugin", wishes.plugin, "path of libVornPolicyCpu.so");
}

}  // namespace Vorn
