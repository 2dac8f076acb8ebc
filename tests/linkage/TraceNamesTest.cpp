// Under which names the engine and the linkages speak: handle, class and function of every line.
#include <gtest/gtest.h>

#include "tests/linkage/LinkageFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

struct Speaker {
    std::string_view part;  ///< of the text
    int level;
    std::string_view function;
};

class TraceNames : public LinkageFixture<CounterSide> {
protected:
    TraceNames() : LinkageFixture({.counters = 2}) {}

    /// A story in which every line of the engine and its linkages is spoken.
    void everything() {
        const auto pending = Brumo::make<ForeignChange>(State::created);
        table->isResolverEntryResolved(change(Flags::write, wrapperOf(1, 5), pending));
        table->isResolverEntryResolved(change(Flags::write, wrapperOf(1, 5)));
        committedAction(1, 5);
        committedAction(2, 6);
        committedAction(3, 7);  // the pool is exhausted
        table->entryWrite(key(1), action(1, 0), Brumo::make<ForeignChange>(State::failed));
        agent.settle();
        committedAction(1, 0);
        agent.acknowledgeAll();
        EXPECT_TRUE(resources().move(rkey(6)));
        agent.settle();
        resources().fail(rkey(6));
        agent.settle();
        table->updateEntry(key(99));
        table->entryRead(key(99));
        machine(6)->resPtr()->publishState();
        const auto released = machine(6)->resPtr();
        const_cast<CounterSide::L::ResourceHandle&>(*released).postReleaseProtoStateIs(true);
        released->publishState();
        agent.acknowledgeAll();
        table->entryRemoveAll(nullptr);
        agent.settle();
        table->entryRemoveAll(Brumo::make<ForeignChange>(State::failed));
        agent.settle();
    }
    /// Expects lines with such texts, all of them under the same names.
    static void expect(const TraceCapture& traces, std::string_view handle,
                       std::string_view className, const Speaker& speaker) {
        std::size_t found = 0;
        for (const TraceLine& line : traces.lines()) {
            if (line.handle != handle || line.text.find(speaker.part) == std::string::npos)
                continue;
            ++found;
            EXPECT_EQ(line.level, speaker.level) << line.text;
            EXPECT_EQ(line.function, speaker.function) << line.text;
            EXPECT_EQ(line.className, className) << line.text;
        }
        EXPECT_GT(found, 0U) << speaker.part;
    }
};

TEST_F(TraceNames, OfTheEngineAreItsFunctions) {
    const TraceCapture traces;
    everything();
    for (const Speaker& speaker : std::initializer_list<Speaker>{
             {"dependant entry not yet resolved", 3, "isResolverEntryResolved"},
             {"dependant entry is resolved", 3, "isResolverEntryResolved"},
             {"resolved: true", 3, "isResolverEntryResolved"},
             {"is still unresolved!", 3, "resAccessorCheckResolved"},
             {"has failed resolution!", 3, "checkResolveSuccess"},
             {"Entry: 0", 8, "commitEntry"},
             {"Failed dependent entry for key: ", 1, "commitEntry"},
             {"Failed to commit entry key: ", 1, "commitEntry"},
             {"Failed dependent entry for remove all", 1, "commitEntry"},
             {"Failed to commit entry remove all operation", 1, "commitEntry"},
             {"Committing table delete for version: ", 8, "commitEntry"},
             {"Failed to find entry for key: ", 1, "entryReadGeneric"},
             {"tableVersion: ", 8, "tableStatusVersion"},
             {"Processing version: ", 3, "tableStatusVersion"},
             {", refresh: ", 8, "setRsrcPtrs"},
             {", refreshRsrcPtrs: ", 8, "entryWrapperFromConfig"},
             {" entry does not exist ", 3, "updateEntry"},
             {", some resource had failed", 3, "updateEntry"},
             {", entryLogVersion: ", 3, "updateEntry"},
             {", no change in logEntry or don't commit to log", 3, "updateEntry"},
             {" releaseResources: ", 8, "delAllEntries"},
         }) {
        expect(traces, name(), "OrderedSwTableAccessor", speaker);
    }
}

TEST_F(TraceNames, OfALinkageAreThoseOfItsAccessor) {
    const TraceCapture traces;
    everything();
    for (const Speaker& speaker : std::initializer_list<Speaker>{
             {", isDeleted: ", 8, "updateLocalUsage"},
             {"Null resKey: ", 3, "addResKeyMapping"},
             {"Updating sw table entry for key: ", 3, "handleResourceChange"},
             {"Ignoring change for resourceKey: ", 3, "handleResourceChange"},
             {"neededVersion: ", 9, "getNeededEntrySet"},
         }) {
        expect(traces, traced(), "SwTableResourceAccessor", speaker);
    }
}

}  // namespace
