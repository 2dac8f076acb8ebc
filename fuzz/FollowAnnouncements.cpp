// The hardware side follows an agent that announces anything, through files that rot under it.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "fuzz/support/Input.h"
#include "hwside/LogReader.h"
#include "platform/brumo/Trace.h"
#include "tests/hwside/AgentSide.h"

namespace {

using HwSide::Test::AgentSide;

constexpr std::uint32_t kKeys = 8;
/// So many that a snapshot, restarts and a few changes behind them fit.
constexpr std::size_t kMostSteps = 256;

/// Tables that there are, one that nobody looks up, and one that there is not.
constexpr std::uint32_t kTableIds[] = {HwSide::ActionTypes::kTableId.whole(),
                                       HwSide::V4Types::kTableId.whole(),
                                       HwSide::V6Types::kTableId.whole(), 0x2C080501, 7};

class Scene {
public:
    Scene() : agent_(folder_.path()), group_{folder_.path()} { startHardware(); }

    void step(Fuzz::Input& input) {
        switch (input.below(9)) {
            case 0:
                return write<HwSide::ActionTypes>(input);
            case 1:
                return write<HwSide::V4Types>(input);
            case 2:
                return write<HwSide::V6Types>(input);
            case 3:
                return remove<HwSide::ActionTypes>(input);
            case 4:
                return remove<HwSide::V4Types>(input);
            case 5:
                return announce(input);
            case 6:
                return rot(input);
            case 7:
                pump(input.take<std::uint8_t>());
                return;
            default:
                return restartHardware(input);
        }
    }

    void pump(std::size_t budget) { reader_->pump(budget); }

private:
    static std::uint32_t tableId(Fuzz::Input& input) {
        return kTableIds[input.below(std::size(kTableIds))];
    }
    static Asic::UnitId unit(Fuzz::Input& input) {
        return {static_cast<std::uint16_t>(1 + input.below(2))};
    }
    static HwSide::Test::Needed needed(Fuzz::Input& input) {
        HwSide::Test::Needed needed(input.below(6));
        for (KivShimo::NeededVersion& each : needed) {
            each.tableId = tableId(input);
            each.version = input.take<std::uint8_t>();
        }
        return needed;
    }

    void announce(Fuzz::Input& input) {
        const std::uint32_t table = tableId(input);
        const auto version = input.take<std::uint8_t>();
        agent_.announce(table, version, needed(input));
    }

    template <class Types>
    void write(Fuzz::Input& input) {
        typename Types::Entry entry;
        entry.key = keyOf<Types>(input);
        const Asic::UnitId to = unit(input);
        agent_.write<Types>(to, entry, needed(input));
    }
    template <class Types>
    void remove(Fuzz::Input& input) {
        const auto key = keyOf<Types>(input);
        const Asic::UnitId from = unit(input);
        if (input.below(kKeys) == 0) {
            agent_.clear<Types>(from);
        } else if (agent_.table<Types>().config(from).swTableEntries(key).has_value()) {
            agent_.remove<Types>(from, key);
        }
    }
    template <class Types>
    static typename Types::Key keyOf(Fuzz::Input& input) {
        const auto number = static_cast<std::uint32_t>(input.below(kKeys));
        if constexpr (std::is_same_v<Types, HwSide::ActionTypes>) {
            typename Types::Key key;
            key.id = number;
            return key;
        } else {
            return {number, 0};
        }
    }

    /// Writes over a byte of some file below the folder.
    void rot(Fuzz::Input& input) const {
        std::vector<std::string> files;
        for (const auto& at : std::filesystem::recursive_directory_iterator(folder_.path())) {
            if (at.is_regular_file() && at.file_size() > 0)
                files.push_back(at.path().string());
        }
        std::ranges::sort(files);
        const std::string& file = files.at(input.below(files.size()));
        const auto at = static_cast<off_t>(input.below(std::filesystem::file_size(file)));
        const auto byte = input.take<std::uint8_t>();
        const int descriptor = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
        Brumo::require(::pwrite(descriptor, &byte, 1, at) == 1, "a byte is written", file);
        ::close(descriptor);
    }

    void startHardware() {
        acks_.emplace(folder_.path(), HwSide::Group::acknowledgementsPath());
        reader_.emplace(group_, *tcam_, *acks_);
    }
    void restartHardware(Fuzz::Input& input) {
        reader_.reset();
        acks_.reset();
        if (input.below(2) == 0)
            tcam_.emplace();
        startHardware();
    }

    HwSide::Test::Folder folder_;
    AgentSide agent_;
    HwSide::Group group_;
    std::optional<HwSide::Tcam> tcam_{std::in_place};
    std::optional<KivShimo::AckMapWriter> acks_;
    std::optional<HwSide::LogReader> reader_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Brumo::traceFilterIs("");  // a finding is what ends the process, not what is traced
    Fuzz::Input input(data, size);
    Scene scene;
    for (std::size_t steps = 0; steps < kMostSteps && !input.empty(); ++steps) {
        try {
            scene.step(input);
        } catch (const KivShimo::CorruptionError&) {
            continue;  // the agent's own table: it reports, and goes on
        }
    }
    scene.pump(SIZE_MAX);
    scene.pump(SIZE_MAX);
    return 0;
}
