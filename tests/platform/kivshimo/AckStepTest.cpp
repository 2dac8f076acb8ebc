// A reader of the acknowledgements that is held up at any of its instructions while rows change
// hands: it is stepped by its parent, which writes in between.
#include <sys/ptrace.h>

#include <random>

#include "platform/kivshimo/AckMap.h"
#include "tests/platform/kivshimo/Fixture.h"

namespace KivShimo::Test {
namespace {

using AckStepTest = ShimoTest;

constexpr int kLookUps = 40;
constexpr std::uint64_t kMostSteps = 1000000;
/// Instructions between two changes: enough for a look-up to come to an end.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::uint64_t kCalm = 10000;
#else
constexpr std::uint64_t kCalm = 600;
#endif

/// How a look-up has ended; the exit code of the other process.
enum LookUp : int { right = 0, wrong = 1, refused = 2 };

LookUp lookUp(const AckMapReader& reader) {
    try {
        return reader.acknowledged(1).value_or(101) == 101 ? right : wrong;
    } catch (const CorruptionError&) {
        return refused;
    }
}

TEST_F(AckStepTest, RowTakenByAnotherTableDuringALookUpNeverGivesItsVersion) {
    AckMapWriter writer(root_, "acks");
    const auto reader = AckMapReader::open(file("acks"));
    ASSERT_TRUE(reader.has_value());
    writer.ackIs(1, 101);
    ASSERT_EQ(lookUp(*reader), right);
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        LookUp last = right;
        for (int i = 0; i < kLookUps && last == right; ++i)
            last = lookUp(*reader);
        _exit(last);
    }
    const auto rowIsOf = [&writer](std::uint32_t table) {
        writer.forget(3 - table);
        writer.ackIs(table, 100 * table + table % 2);
    };
    std::mt19937 random(1);
    int status = 0;
    waitpid(child, &status, 0);
    bool isOfFirst = true;
    std::uint64_t due = 1;
    for (std::uint64_t step = 1; WIFSTOPPED(status) && step < kMostSteps; ++step) {
        if (step == due) {
            // It also happens that the row has been the other's and comes back meanwhile.
            if (random() % 3 == 0)
                rowIsOf(isOfFirst ? 2 : 1);
            else
                isOfFirst = !isOfFirst;
            rowIsOf(isOfFirst ? 1 : 2);
            due += kCalm + random() % kCalm;
        }
        ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr);
        waitpid(child, &status, 0);
    }
    if (WIFSTOPPED(status)) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), right);
}

}  // namespace
}  // namespace KivShimo::Test
