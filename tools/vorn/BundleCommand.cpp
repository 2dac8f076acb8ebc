// vorn support-bundle: everything that this program shows, in one file.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "inspect/Errors.h"
#include "tools/vorn/Session.h"
#include "tools/vorn/ShowText.h"
#include "tools/vorn/Subprocess.h"

namespace Vorn {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kItemTime{60};

/// A file of the bundle, and the command whose output it is; text and JSON of each.
struct BundleItem {
    std::string name;
    std::vector<std::string> command;
};

const std::vector<BundleItem>& bundleItems() {
    static const std::vector<BundleItem> items{
        {"tables", {"show", "tables"}},
        {"units", {"show", "units"}},
        {"entries", {"show", "entries"}},
        {"log", {"log"}},
        {"acks", {"show", "acks"}},
        {"resources", {"show", "resources"}},
        {"handles", {"show", "handles"}},
        {"stats", {"show", "stats"}},
        {"alarms", {"show", "alarms"}},
        {"check", {"check"}},
        {"watch", {"watch", "--count", "1"}},
        {"metrics", {"metrics"}},
        {"traces", {"trace", "tail", "--count", "10000"}},
        {"trace-filter", {"trace", "show"}},
        {"ring", {"ring", "dump"}},
        {"ring-before", {"ring", "dump", "--before"}},
    };
    return items;
}

/// A folder that goes with the object.
class WorkFolder {
public:
    WorkFolder() {
        std::string name = (fs::temp_directory_path() / "vorn-bundle-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::system_error(errno, std::system_category(), name);
        path_ = name;
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;
    ~WorkFolder() {
        std::error_code ignored;  // what stays is in a folder for temporary files
        fs::remove_all(path_, ignored);
    }

    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

void writeFile(const fs::path& file, const std::string& content) {
    std::ofstream stream(file, std::ios::binary);
    stream << content;
    stream.close();
    if (!stream)
        throw std::runtime_error(fmt::format("{}: cannot be written", file.string()));
}

std::string lastLine(std::string text) {
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    const std::size_t at = text.rfind('\n');
    return at == std::string::npos ? text : text.substr(at + 1);
}

/// Puts what the command prints into NAME.SUFFIX; says how it went.
Json bundled(const Session& session, const fs::path& folder, const BundleItem& item, bool json) {
    std::vector<std::string> command{ownProgram(), "--state-dir", session.stateDirectory, "--color",
                                     "never"};
    for (const std::string& name : session.silent) {
        command.emplace_back("--silent");
        command.push_back(name);
    }
    if (json)
        command.emplace_back("--json");
    command.insert(command.end(), item.command.begin(), item.command.end());
    const std::string file = fmt::format("{}.{}", item.name, json ? "json" : "txt");
    const Ended ended = runProgram(command, kItemTime);
    const bool isHad = !ended.isTimedOut && (ended.code == kDone || ended.code == kFound);
    Json entry{{"file", file},
               {"command", fmt::format("vorn {}", fmt::join(item.command, " "))},
               {"exit", ended.code},
               {"had", isHad},
               {"reason", nullptr}};
    if (isHad)
        writeFile(folder / file, json ? ended.out : ended.err + ended.out);  // with the source
    else
        entry["reason"] = ended.isTimedOut ? "took too long" : lastLine(ended.err);
    return entry;
}

Json copied(const Session& session, const fs::path& folder, const std::string& name) {
    std::error_code error;
    fs::copy_file(fs::path(session.stateDirectory) / name, folder / name, error);
    return {{"file", name},
            {"command", "copy"},
            {"exit", error ? kFound : kDone},
            {"had", !error},
            {"reason", error ? Json(error.message()) : Json(nullptr)}};
}

/// What would tell two builds apart.
Json programsJson() {
    Json programs = Json::array();
    for (const char* name : {"vorn", "vorn-agent", "vorn-hwd"}) {
        const std::string path = siblingProgram(name);
        std::error_code error;
        const std::uintmax_t bytes = fs::file_size(path, error);
        programs.push_back({{"program", name},
                            {"path", path},
                            {"bytes", error ? Json(nullptr) : Json(bytes)},
                            {"version", VORN_VERSION}});
    }
    return programs;
}

std::string defaultName() {
    return fmt::format("vorn-support-{:%Y%m%d-%H%M%S}.tar.gz", fmt::gmtime(std::time(nullptr)));
}

/// The changes that wait longest, explained.
std::vector<BundleItem> explanations(Session& session) {
    constexpr std::size_t kMost = 20;
    std::vector<BundleItem> items;
    const auto answer =
        session.system().agent.tryAsk({{"cmd", "changes"}, {"limit", std::uint64_t{kMost}}});
    for (const Json& change : answer ? answer->value("changes", Json::array()) : Json::array()) {
        const std::string key = stringIn(change, "key");
        if (key.empty() || items.size() == kMost)
            continue;
        items.push_back({fmt::format("explain-{}", items.size() + 1),
                         {"explain", stringIn(change, "table"), numberText(change, "unit"), key}});
    }
    return items;
}

/// What the hardware side says of itself, and all that it holds.
Json toldByHardware(Session& session, const fs::path& folder, const std::string& command) {
    const std::string file = fmt::format("hardware-{}.json", command);
    std::string reason;
    const auto answer = session.system().hardware.tryAsk({{"cmd", command}}, &reason);
    if (answer)
        writeFile(folder / file, answer->dump(-1, ' ', false, Json::error_handler_t::replace));
    return {{"file", file},
            {"command", command},
            {"exit", static_cast<int>(answer ? kDone : kNotRunning)},
            {"had", answer.has_value()},
            {"reason", answer ? Json(nullptr) : Json(reason)}};
}

/// One that hangs is asked once, and not by each of the commands.
void findSilent(Session& session) {
    Inspect::System& system = session.system();
    if (system.agent.runs() && !system.agent.tryAsk({{"cmd", "status"}}))
        session.silent.emplace_back("agent");
    if (system.hardware.runs() && !system.hardware.tryAsk({{"cmd", "status"}}))
        session.silent.emplace_back("hardware");
}

volatile std::sig_atomic_t isInterrupted = 0;

void runItems(Session& session, const fs::path& folder, Json& parts) {
    std::vector<BundleItem> items = bundleItems();
    std::ranges::move(explanations(session), std::back_inserter(items));
    ProgressLine progress(!session.json);
    std::uint64_t done = 0;
    for (const BundleItem& item : items) {
        progress.show(item.name, done++, items.size());
        for (const bool json : {true, false}) {
            parts.push_back(bundled(session, folder, item, json));
            if (isInterrupted != 0)
                throw std::runtime_error("interrupted; nothing was written");
        }
    }
}

int makeBundle(Session& session, std::string file) {
    const std::string_view source = session.source();
    findSilent(session);
    // The folder goes with the object that holds it, which a signal alone would not take down.
    std::signal(SIGINT, [](int) { isInterrupted = 1; });
    if (file.empty())
        file = defaultName();
    const WorkFolder work;
    const fs::path folder = work.path() / "vorn-support";
    fs::create_directory(folder);
    Json parts = Json::array();
    runItems(session, folder, parts);
    for (const char* command : {"status", "tcam"})
        parts.push_back(toldByHardware(session, folder, command));
    for (const char* ring : {"agent.ring", "agent.ring.before"})
        parts.push_back(copied(session, folder, ring));
    const Json index{{"source", source},
                     {"stateDirectory", session.stateDirectory},
                     {"programs", programsJson()},
                     {"parts", parts}};
    writeFile(folder / "index.json", index.dump(2) + "\n");
    const Ended tar = runProgram(
        {"tar", "-C", work.path().string(), "-czf", fs::absolute(file).string(), "vorn-support"},
        kItemTime);
    if (tar.code != 0)
        throw std::runtime_error(fmt::format("{}: {}", file, lastLine(tar.err)));
    if (session.json)
        return session.printed({{"file", file}, {"parts", parts}});
    session.out().line(file);
    for (const Json& part : parts) {
        if (!part.at("had").get<bool>())
            session.out().line(fmt::format("  without {}: {}", part.at("file").get<std::string>(),
                                           part.at("reason").get<std::string>()));
    }
    return kDone;
}

}  // namespace

void addBundleCommand(CLI::App& app, Session& session) {
    static std::string file;
    CLI::App* const command =
        addCommand(app, session, "support-bundle", "all that can be had, in one tar file",
                   [&session] { return makeBundle(session, file); });
    command->group("Tracing");
    command->add_option("-o,--output", file, "vorn-support-TIME.tar.gz by default");
}

}  // namespace Vorn
