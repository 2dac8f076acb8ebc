// Random sequences of everything that can happen to tables, against the model. The number of
// sequences is VORN_MODEL_SEQUENCES, or as many as fit a run of all tests.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include "platform/brumo/Trace.h"
#include "tests/model/Commands.h"

namespace ModelTests {

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr int kSequences = 2000;
#else
constexpr int kSequences = 3000;
#endif

int sequencesWanted() {
    const char* wanted = std::getenv("VORN_MODEL_SEQUENCES");
    if (wanted == nullptr)
        return kSequences;
    const int number = std::stoi(wanted);  // throws what it cannot read
    if (number <= 0)
        throw std::invalid_argument("VORN_MODEL_SEQUENCES: expected a number above 0");
    return number;
}

/// Says at the very end how many sequences there were.
struct SequencesDone {
    int count = 0;
    Reached reached;
    void add(const Reached& more) {
        ++count;
        reached.commits += more.commits;
        reached.answers += more.answers;
        reached.resolveFailures += more.resolveFailures;
        reached.dependencyFailures += more.dependencyFailures;
        reached.updates += more.updates;
        reached.updatesWithFailure += more.updatesWithFailure;
        reached.clears += more.clears;
        reached.restarts += more.restarts;
    }
    SequencesDone() = default;
    SequencesDone(const SequencesDone&) = delete;
    SequencesDone& operator=(const SequencesDone&) = delete;
    ~SequencesDone() { std::printf("%s\nmodel: %d sequences\n", textOf(reached).c_str(), count); }
};
SequencesDone sequencesDone;

/// The sequence under way: an assertion of the engine ends the process before it is shrunk.
const Sequence* underWay = nullptr;

extern "C" void printUnderWay(int) {
    if (underWay != nullptr)
        std::fputs(textOf(*underWay).c_str(), stderr);
    std::signal(SIGABRT, SIG_DFL);
    std::abort();
}

rc::Gen<Op> ops() {
    return rc::gen::weightedElement<Op>({{20, Op::write},
                                         {8, Op::remove},
                                         {3, Op::removeAll},
                                         {12, Op::turn},
                                         {6, Op::settle},
                                         {6, Op::acknowledge},
                                         {3, Op::acknowledgeResources},
                                         {4, Op::move},
                                         {3, Op::fail},
                                         {3, Op::recover},
                                         {2, Op::cleanup},
                                         {3, Op::openWalk},
                                         {6, Op::stepWalk},
                                         {2, Op::update},
                                         {1, Op::clearTable},
                                         {1, Op::pause},
                                         {2, Op::resume},
                                         {2, Op::restart}});
}

rc::Gen<unsigned> below(unsigned limit) {
    return rc::gen::resize(100, rc::gen::inRange(0U, limit));
}

/// Mostly nothing.
rc::Gen<unsigned> seldom(unsigned limit) {
    return rc::gen::weightedOneOf<unsigned>({{3, rc::gen::just(0U)}, {1, below(limit)}});
}

rc::Gen<unsigned> often(unsigned limit) {
    return rc::gen::oneOf(rc::gen::just(0U), below(limit));
}

rc::Gen<Command> commands() {
    return rc::gen::build<Command>(
        rc::gen::set(&Command::op, ops()), rc::gen::set(&Command::family, below(2)),
        rc::gen::set(&Command::unit, below(2)), rc::gen::set(&Command::key, below(4)),
        rc::gen::set(&Command::counter, below(5)), rc::gen::set(&Command::policer, below(5)),
        rc::gen::set(&Command::variant, seldom(8)), rc::gen::set(&Command::dependency, often(5)),
        rc::gen::set(&Command::callback, seldom(4)), rc::gen::set(&Command::amount, below(9)));
}

rc::Gen<Sequence> sequences() {
    return rc::gen::build<Sequence>(
        rc::gen::set(&Sequence::twoUnits), rc::gen::set(&Sequence::v6),
        rc::gen::set(&Sequence::commands,
                     rc::gen::scale(1.5, rc::gen::container<std::vector<Command>>(commands()))));
}

}  // namespace

TEST(Tables, DoWhatTheModelDoesInEverySequence) {
    const std::string filterBefore = Brumo::traceFilter();
    Brumo::traceFilterIs("");
    std::signal(SIGABRT, printUnderWay);
    rc::detail::TestParams params = rc::detail::configuration().testParams;
    params.maxSuccess = sequencesWanted();
    const auto result = rc::detail::checkTestable(
        [&] {
            const Sequence sequence = *sequences();
            underWay = &sequence;
            std::string failure;
            try {
                Reached reached;
                failure = run(sequence, reached);
                sequencesDone.add(reached);
            } catch (const std::exception& error) {
                failure = std::string("thrown: ") + error.what();
            }
            underWay = nullptr;
            if (!failure.empty())
                RC_FAIL(failure);
        },
        rc::detail::TestMetadata{"Tables", "do what the model does"}, params);
    std::signal(SIGABRT, SIG_DFL);
    Brumo::traceFilterIs(filterBefore);
    std::ostringstream text;
    rc::detail::printResultMessage(result, text);
    EXPECT_TRUE(result.is<rc::detail::SuccessResult>()) << text.str();
}

}  // namespace ModelTests
