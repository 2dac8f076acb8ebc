// A writer killed at any instruction leaves files from which the next mount makes the state before
// its change or the state after it, and so does a mount that is killed while it does so. Readers
// who look before that mount find nothing announced or published that is not there.
//
// VORN_TORTURE=full steps recoveries of each kind of change; otherwise of three.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "platform/brumo/Trace.h"
#include "tests/support/TempDir.h"
#include "tests/torture/Stepper.h"
#include "tests/torture/Subjects.h"

namespace Torture {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;  // each instruction costs several
#else
constexpr bool kSanitized = false;
#endif

/// Recoveries that are stepped of each scenario, about.
constexpr std::size_t kFullRecoveries = 12;

bool isFull() {
    const char* const wanted = std::getenv("VORN_TORTURE");
    return wanted != nullptr && std::string(wanted) == "full";
}

std::vector<Scenario> allScenarios() {
    std::vector<Scenario> all = groupScenarios();
    for (auto&& more : {resourceScenarios(), entryLogScenarios()})
        all.insert(all.end(), more.begin(), more.end());
    return all;
}

class KilledAtEveryInstruction : public testing::TestWithParam<Scenario> {
protected:
    /// What the next mount makes of the files and reports of them, and that it goes on working.
    std::string recovered(const Image& image) {
        imageIs(folder_.path(), image);
        return inChild([this] {
            std::string reports;
            Brumo::traceFilterIs("*/0;KivShimo/1");
            Brumo::traceSinkIs([&](const Brumo::TraceRecord& record) {
                reports += fmt::format("reported: {}\n", record.text);
            });
            const auto subject = GetParam().mount(folder_.path());
            std::string state = subject->state();
            subject->use();
            return state + reports;
        });
    }
    /// What readers find in the files before the next mount.
    Sight read(const Image& image, std::uint64_t reclaimed) {
        imageIs(folder_.path(), image);
        try {
            return GetParam().read(folder_.path(), reclaimed);
        } catch (const std::exception& error) {
            return {0, error.what()};
        }
    }
    Steps steppedRecovery(const Image& image) {
        imageIs(folder_.path(), image);
        return stepped(
            folder_.path(), [] {}, [this] { GetParam().mount(folder_.path()).release(); });
    }

    /// The mount of an image takes hundreds of thousands of instructions.
    static bool stepsRecoveryOf(std::size_t image, std::size_t images) {
        static const std::set<std::string> kSlice{"counter: move",
                                                  "PolicyCpuV6TcamEntry: overwrite",
                                                  "PolicyCpuTcamAction: table delete"};
        if (isFull())
            return image % (images / kFullRecoveries + 1) == 0;
        return !kSanitized && kSlice.contains(GetParam().name) && image == images / 2;
    }

    TestSupport::TempDir folder_;
};

TEST_P(KilledAtEveryInstruction, LeavesTheStateBeforeOrAfter) {
    const Scenario& scenario = GetParam();
    std::unique_ptr<Subject> subject;  // in the child
    const Steps steps = stepped(
        folder_.path(),
        [&] {
            subject = scenario.mount(folder_.path());
            scenario.prepare(*subject);
        },
        [&] { scenario.change(*subject); });
    const std::string before = recovered(steps.images.front());
    const std::string after = recovered(steps.after);
    EXPECT_EQ(before.find("exception"), std::string::npos) << before;
    EXPECT_EQ(before == after, scenario.isMount) << "nothing else could be told";

    const std::uint64_t published = read(steps.images.front(), UINT64_MAX).published;
    std::size_t good = 0;
    bool isAfter = false;
    std::size_t recoveries = 0;
    std::size_t recoveryImages = 0;
    std::uint64_t recoveryInstructions = 0;
    std::set<std::uint64_t> known;
    for (std::size_t i = 0; i < steps.images.size(); ++i) {
        ASSERT_EQ(read(steps.images[i], published).wrong, "") << "readers of image " << i;
        const std::string state = recovered(steps.images[i]);
        const bool fits = state == before || state == after;
        ASSERT_TRUE(fits) << "image " << i << " of " << steps.images.size() << ":\n"
                          << state << "neither before:\n"
                          << before << "nor after:\n"
                          << after;
        // Once it has happened, it is not taken back.
        ASSERT_TRUE(!isAfter || state == after) << "image " << i << " is before again";
        isAfter = state == after && before != after;
        ++good;
        if (!stepsRecoveryOf(i, steps.images.size()))
            continue;
        const Steps recovery = steppedRecovery(steps.images[i]);
        recoveryInstructions += recovery.instructions;
        ++recoveries;
        for (const Image& image : recovery.images) {
            if (!known.insert(hashOf(image)).second)
                continue;
            ++recoveryImages;
            ASSERT_EQ(recovered(image), state) << "killed in the recovery of image " << i;
        }
    }
    fmt::print(
        "{}: {} instructions stepped, {} distinct images, {} recovered; {} recoveries: {} "
        "instructions, {} images, all recovered\n",
        scenario.name, steps.instructions, steps.images.size(), good, recoveries,
        recoveryInstructions, recoveryImages);
}

INSTANTIATE_TEST_SUITE_P(All, KilledAtEveryInstruction, testing::ValuesIn(allScenarios()),
                         [](const auto& of) {
                             std::string name = of.param.name;
                             for (char& c : name) {
                                 if (std::isalnum(static_cast<unsigned char>(c)) == 0)
                                     c = '_';
                             }
                             return name;
                         });

}  // namespace
}  // namespace Torture
