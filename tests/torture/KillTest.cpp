// A writer killed at any instruction leaves files from which the next mount makes the state before
// its change or the state after it, and so does a mount that is killed while it does so. Readers
// who look before that mount find nothing announced or published that is not there.
//
// VORN_TORTURE=full steps every recovery of every change by its stores, and one of each change by
// instruction; otherwise it is some recoveries, and three.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "platform/brumo/Trace.h"
#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/ReadPatience.h"
#include "platform/kivshimo/detail/FileHeader.h"
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

/// Recoveries of a change that are stepped in the slice, at most.
constexpr std::size_t kSliceOfRecoveries = 3;

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

/// What does not differ between two children that do the same.
Image mappedWithoutPids(const Image& image) {
    Image result;
    for (const auto& [name, content] : image) {
        if (!name.ends_with(KivShimo::kTableSuffix))
            continue;
        std::string& mapped = result[name] = content;
        mapped.replace(
            KivShimo::detail::kDynamicOffset + offsetof(KivShimo::detail::DynamicHeader, holderPid),
            sizeof(KivShimo::detail::DynamicHeader::holderPid), "");
    }
    return result;
}

class KilledAtEveryInstruction : public testing::TestWithParam<Scenario> {
protected:
    // Nobody goes on storing where the writer was killed.
    KilledAtEveryInstruction() { KivShimo::readPatienceIs(std::chrono::milliseconds(0)); }

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
    /// What is wrong with what readers find in the files before the next mount.
    std::string wrongIn(const Image& image, const Sight& before, const Sight& after) {
        const Sight sight = read(image, before.published);
        std::string wrong = sight.wrong;
        for (const std::string& key : sight.absent) {
            if (!before.absent.contains(key) && !after.absent.contains(key))
                wrong += key + " is absent and never was\n";
        }
        return wrong;
    }
    Sight read(const Image& image, std::uint64_t reclaimed) {
        imageIs(folder_.path(), image);
        try {
            return GetParam().read(folder_.path(), reclaimed);
        } catch (const KivShimo::BusyError& error) {
            return {0, isBeingMounted_ ? "" : error.what(), {}};
        } catch (const std::exception& error) {
            return {0, error.what(), {}};
        }
    }
    std::function<void()> mounting() {
        return [this] { GetParam().mount(folder_.path()).release(); };
    }
    Steps recoverySteppedByStores(const Image& image) {
        imageIs(folder_.path(), image);
        return steppedByStores(
            folder_.path(), [] {}, mounting());
    }
    /// The mount of an image takes hundreds of thousands of instructions.
    void compareWithRecoverySteppedByInstruction(const Image& image, const Steps& byStores) {
        imageIs(folder_.path(), image);
        const Steps steps = stepped(
            folder_.path(), [] {}, mounting());
        std::set<std::uint64_t> known;
        for (const Image& each : byStores.images)
            known.insert(hashOf(mappedWithoutPids(each)));
        for (const Image& each : steps.images)
            ASSERT_TRUE(known.contains(hashOf(mappedWithoutPids(each)))) << "a store was missed";
        fmt::print("{}: a recovery by {} instructions: {} distinct images, by {} stores: {}\n",
                   GetParam().name, steps.instructions, steps.images.size(), byStores.instructions,
                   byStores.images.size());
    }

    static bool stepsRecoveryOf(std::size_t image, std::size_t images) {
        return isFull() || (!kSanitized && image % (images / kSliceOfRecoveries + 1) == 0);
    }
    static bool comparesRecoveryOf(std::size_t image, std::size_t images) {
        static const std::set<std::string> kSlice{"counter: move",
                                                  "PolicyCpuV6TcamEntry: overwrite",
                                                  "PolicyCpuTcamAction: table delete"};
        return (isFull() || kSlice.contains(GetParam().name)) &&
               image == images / kSliceOfRecoveries + 1;
    }

    TestSupport::TempDir folder_;
    bool isBeingMounted_ = false;  ///< readers wait for the end of that
};

TEST_P(KilledAtEveryInstruction, LeavesTheStateBeforeOrAfter) {
    const Scenario& scenario = GetParam();
    std::unique_ptr<Subject> subject;  // in the child
    // With sanitizers, a mount takes millions of instructions.
    const auto step = kSanitized && scenario.isMount ? steppedByStores : stepped;
    const Steps steps = step(
        folder_.path(),
        [&] {
            subject = scenario.mount(folder_.path());
            scenario.prepare(*subject);
        },
        [&] { scenario.change(*subject); });
    const std::string before = recovered(steps.images.front());
    const std::string after = recovered(steps.after);
    EXPECT_EQ(before.find("exception"), std::string::npos) << before;
    EXPECT_EQ(before == after, scenario.leavesStateAsItIs) << "nothing could be told";

    const Sight sightBefore = read(steps.images.front(), UINT64_MAX);
    const Sight sightAfter = read(steps.after, UINT64_MAX);
    std::size_t good = 0;
    bool isAfter = false;
    std::size_t recoveries = 0;
    std::size_t recoveryImages = 0;
    std::uint64_t recoveryStores = 0;
    std::set<std::uint64_t> known;
    for (std::size_t i = 0; i < steps.images.size(); ++i) {
        ASSERT_EQ(wrongIn(steps.images[i], sightBefore, sightAfter), "")
            << "readers of image " << i;
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
        const Steps recovery = recoverySteppedByStores(steps.images[i]);
        isBeingMounted_ = true;
        if (comparesRecoveryOf(i, steps.images.size()))
            compareWithRecoverySteppedByInstruction(steps.images[i], recovery);
        recoveryStores += recovery.instructions;
        ++recoveries;
        for (const Image& image : recovery.images) {
            if (!known.insert(hashOf(image)).second)
                continue;
            ++recoveryImages;
            ASSERT_EQ(wrongIn(image, sightBefore, sightAfter), "")
                << "readers in the recovery of image " << i;
            const std::string again = recovered(image);
            // A mount mends damage and reports it; one that follows has nothing to report.
            ASSERT_TRUE(again == state || (scenario.isMount && again == after))
                << "killed in the recovery of image " << i << ":\n"
                << again << "instead of:\n"
                << state;
        }
        isBeingMounted_ = false;
    }
    fmt::print(
        "{}: {} instructions stepped, {} distinct images, {} recovered; {} recoveries: {} "
        "stores stepped, {} distinct images, all recovered\n",
        scenario.name, steps.instructions, steps.images.size(), good, recoveries, recoveryStores,
        recoveryImages);
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
