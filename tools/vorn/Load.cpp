// Asking how far a load is.
#include "tools/vorn/Load.h"

#include <chrono>
#include <thread>

#include "tools/vorn/ShowText.h"

namespace Vorn {

bool hasEnded(const Json& load) {
    return load.value("inProgress", std::uint64_t{0}) == 0 && stringIn(load, "waiting").empty();
}

Json endedLoad(Session& session, Json load, double most_s) {
    constexpr std::chrono::milliseconds kPause{20};
    ProgressLine progress(!session.json);
    const auto began = std::chrono::steady_clock::now();
    const auto isLate = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count() >
               most_s;
    };
    while (!hasEnded(load) && !isLate()) {
        progress.show("changes acknowledged", load.value("complete", std::uint64_t{0}), 0);
        std::this_thread::sleep_for(kPause);
        load = session.askAgent({{"cmd", "status"}}).value("load", Json::object());
    }
    return load;
}

}  // namespace Vorn
