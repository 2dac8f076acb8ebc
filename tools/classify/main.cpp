// Asks the running hardware side what packets meet: one packet given by its fields, or those of a
// capture file.

#include <cstdio>
#include <optional>
#include <string>
#include <system_error>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "hwside/Group.h"
#include "hwside/Json.h"
#include "hwside/PcapFile.h"
#include "process/ControlServer.h"

namespace {

using HwSide::Json;

constexpr int kOk = 0;
constexpr int kUsage = 2;
constexpr int kStateDirectory = 3;
constexpr int kOther = 4;

constexpr const char* kExitCodes =
    "Exit codes: 0 every packet was asked for, 2 wrong options or fields, 3 no hardware side "
    "answers in the state directory, 4 the capture file or the connection is broken.";

struct Options {
    std::string stateDirectory;
    std::uint16_t unit = 0;
    std::string pcap;
    bool json = false;
    Json packet = Json::object();
};

/// Adds an option that becomes a member of the packet.
template <class Value>
CLI::Option* fieldOption(CLI::App& app, Json& packet, const std::string& name, const char* help) {
    return app.add_option_function<Value>(
        "--" + name, [&packet, name](const Value& value) { packet[name] = value; }, help);
}

void declare(CLI::App& app, Options& options) {
    app.add_option("--state-dir", options.stateDirectory, "directory of the running hardware side")
        ->required();
    app.add_option("--unit", options.unit, "chip unit")->required();
    CLI::Option* const pcap =
        app.add_option("--pcap", options.pcap, "capture file, in place of the fields below");
    app.add_flag("--json", options.json, "one JSON object a packet");
    Json& packet = options.packet;
    const std::vector<CLI::Option*> fields{
        fieldOption<std::string>(app, packet, "src", "source address (with --dst)"),
        fieldOption<std::string>(app, packet, "dst", "destination address"),
        fieldOption<std::string>(app, packet, "proto", "protocol, name or number; default 0"),
        fieldOption<std::uint64_t>(app, packet, "sport", "source port; default 0"),
        fieldOption<std::uint64_t>(app, packet, "dport", "destination port; default 0"),
        fieldOption<std::uint64_t>(app, packet, "tcp-flags", "flags as in the header, FIN is 1"),
        fieldOption<std::uint64_t>(app, packet, "icmp-type", "ICMP or ICMPv6 type; default 0"),
        fieldOption<std::uint64_t>(app, packet, "icmp-code", "ICMP or ICMPv6 code; default 0"),
        fieldOption<std::uint64_t>(app, packet, "ttl", "time to live, hop limit; default 64"),
        fieldOption<std::uint64_t>(app, packet, "dscp", "0 to 63; default 0"),
        fieldOption<std::string>(app, packet, "fragment", "none (default), first or later"),
        app.add_flag_callback(
            "--df", [&packet] { packet["df"] = true; }, "do not fragment (IPv4)"),
    };
    for (CLI::Option* field : fields)
        pcap->excludes(field);
    app.footer(kExitCodes);
}

std::string actionText(const Json& match) {
    const Json& action = match.at("action");
    if (action.is_null()) {
        return fmt::format("action {} is not programmed", match.at("actionKey").get<std::string>());
    }
    std::string text = fmt::format("action {} {}", action.at("name").get<std::string>(),
                                   action.at("disposition").get<std::string>());
    const std::string mode = action.at("mode").get<std::string>();
    if (mode != "none") {
        text += fmt::format(" {} {} burst {}", action.at("rate").get<std::uint64_t>(), mode,
                            action.at("burst").get<std::uint64_t>());
    }
    return text;
}

std::string lineOf(const Json& answer) {
    const std::string packet = answer.at("packet").get<std::string>();
    const Json& match = answer.at("match");
    if (match.is_null())
        return packet + ": no entry";
    return fmt::format("{}: entry {} ({}) priority {}: {}", packet,
                       match.at("label").get<std::string>(), match.at("key").get<std::string>(),
                       match.at("priority").get<std::uint32_t>(), actionText(match));
}

void ask(Process::ControlClient& client, const Options& options, const Json& packet) {
    Json answer = client.request({{"cmd", "classify"}, {"unit", options.unit}, {"packet", packet}});
    if (!answer.at("ok").get<bool>()) {
        throw HwSide::RequestError(answer.at("error").get<std::string>());
    }
    answer.erase("ok");
    fmt::print("{}\n", options.json ? answer.dump() : lineOf(answer));
}

void askForCapture(Process::ControlClient& client, const Options& options) {
    HwSide::PcapFile capture(options.pcap);
    while (const std::optional<HwSide::Decoded> decoded = capture.next()) {
        if (decoded->outcome == HwSide::DecodeOutcome::ok) {
            ask(client, options, HwSide::packetToJson(decoded->packet));
            continue;
        }
        const std::string_view outcome = HwSide::outcomeText(decoded->outcome);
        if (options.json) {
            const Json line{
                {"number", capture.packets()}, {"undecoded", outcome}, {"reason", decoded->reason}};
            fmt::print("{}\n", line.dump());
        } else {
            fmt::print("packet {}: {}: {}\n", capture.packets(), outcome, decoded->reason);
        }
    }
}

int failed(int code, std::string_view reason) {
    fmt::print(stderr, "vorn-classify: {}\n", reason);
    return code;
}

int run(const Options& options) {
    std::optional<Process::ControlClient> client;
    try {
        client.emplace(HwSide::Group{options.stateDirectory}.controlSocket());
    } catch (const std::system_error& error) {
        return failed(kStateDirectory, fmt::format("no hardware side answers: {}", error.what()));
    }
    try {
        if (options.pcap.empty()) {
            // Checked here first, so that what is wrong is known without a connection's delay.
            ask(*client, options, HwSide::packetToJson(HwSide::packetFromJson(options.packet)));
        } else {
            askForCapture(*client, options);
        }
    } catch (const HwSide::RequestError& error) {
        return failed(kUsage, error.what());
    }
    return kOk;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Asks the running hardware side which entry and action a packet meets.",
                     "vorn-classify");
        Options options;
        declare(app, options);
        try {
            app.parse(argc, argv);
        } catch (const CLI::Success& asked) {
            return app.exit(asked);
        } catch (const CLI::ParseError& error) {
            return failed(kUsage, fmt::format("{}; see --help", error.what()));
        }
        return run(options);
    } catch (const std::exception& error) {
        return failed(kOther, error.what());
    }
}
