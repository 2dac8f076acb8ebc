// vorn ring: what an agent said last, also a dead one, as text or as a trace for other tools.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <filesystem>
#include <random>
#include <sstream>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/RingCtf.h"
#include "platform/ringtrace/Ring.h"
#include "tools/vorn/NewDirectory.h"
#include "tools/vorn/Session.h"

namespace Vorn {

namespace {

struct RingWishes {
    bool before = false;
    std::string ctf;  ///< directory; empty where lines are wanted
};

Inspect::CtfOrigin originOf(const std::string& file) {
    Inspect::CtfOrigin origin;
    origin.process = "vorn-agent";
    origin.file = file;
    std::array<char, HOST_NAME_MAX + 1> host{};
    if (gethostname(host.data(), host.size() - 1) == 0)
        origin.host = host.data();
    std::istringstream version(VORN_VERSION);
    for (std::uint32_t& number : origin.version) {
        version >> number;
        version.ignore();  // the point
    }
    std::random_device random;
    std::ranges::generate(origin.uuid, [&random] { return static_cast<std::uint8_t>(random()); });
    origin.uuid[6] = (origin.uuid[6] & 0x0FU) | 0x40U;  // the marks of a random one
    origin.uuid[8] = (origin.uuid[8] & 0x3FU) | 0x80U;
    return origin;
}

int exportRing(Session& session, const std::string& file, const std::string& directory) {
    const RingTrace::Reading reading = RingTrace::Ring::read(file);
    const Inspect::CtfTrace trace = Inspect::ctfTraceOf(reading, originOf(file));
    // Without metadata it is no trace: that comes last.
    writeNewDirectory(directory, {{"stream", trace.stream}, {"metadata", trace.metadata}});
    if (session.json) {
        session.out().json({{"source", "files"},
                            {"file", file},
                            {"dir", directory},
                            {"messages", reading.messages.size()},
                            {"discarded", trace.discarded},
                            {"rotten", reading.rottenSlots}});
        return kDone;
    }
    session.out().line(fmt::format("{}: {} messages, {} missing before the newest", directory,
                                   reading.messages.size(), trace.discarded));
    for (const std::string& line : RingTrace::linesOf({{}, reading.rottenSlots}))
        session.out().note(line);
    return kDone;
}

int dumpRing(Session& session, const RingWishes& wishes) {
    const std::string file =
        session.requiredDirectory() + (wishes.before ? "/agent.ring.before" : "/agent.ring");
    std::error_code missing;
    if (!std::filesystem::exists(file, missing)) {
        throw Inspect::StateDirectoryError(
            fmt::format("{}: no agent has left a ring trace here", file));
    }
    if (!wishes.ctf.empty())
        return exportRing(session, file, wishes.ctf);
    const std::vector<std::string> lines = RingTrace::Ring::dump(file);
    if (session.json) {
        session.out().json({{"source", "files"}, {"file", file}, {"lines", lines}});
        return kDone;
    }
    for (const std::string& line : lines)
        session.out().line(line);
    return kDone;
}

}  // namespace

void addRingCommands(CLI::App& app, Session& session) {
    static RingWishes wishes;
    CLI::App* const ring =
        app.add_subcommand("ring", "the last messages of an agent, also of a dead one");
    ring->require_subcommand(1)->fallthrough()->group("Tracing");
    CLI::App* const dump =
        addCommand(*ring, session, "dump", "oldest first, times in seconds since 1970",
                   [&session] { return dumpRing(session, wishes); });
    dump->add_flag("--before", wishes.before, "of the agent before");
    dump->add_option("--ctf", wishes.ctf,
                     "into a new directory, as a trace that babeltrace2 and others read")
        ->option_text("DIR")
        ->check([](const std::string& name) {
            return std::string(name.empty() ? "a directory is needed" : "");
        });
}

}  // namespace Vorn
