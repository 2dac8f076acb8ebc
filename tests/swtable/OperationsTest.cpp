// The operations of a table: what each traces in its own name, and what it hands over to.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using Texts = std::vector<std::string>;

template <class B>
class Operation : public SwTableFixture<B> {
protected:
    /// "function:text" of each line at level 8 that a class has traced while `call` ran.
    Texts linesOf(const std::string& className, const std::function<void()>& call) const {
        const TraceCapture traces;
        call();
        Texts result;
        for (const TraceLine& line : traces.lines()) {
            if (line.level == 8 && line.handle == this->name() && line.className == className)
                result.push_back(line.function + ":" + line.text);
        }
        return result;
    }
    Texts tableLines(const std::function<void()>& call) const {
        return linesOf(this->name(), call);
    }
    /// The first line of the engine.
    std::string engineLine(const std::function<void()>& call) const {
        const Texts lines = linesOf("OrderedSwTableAccessor", call);
        return lines.empty() ? "none" : lines.front();
    }
    /// The line of an operation on the key of number 1.
    static std::string withKey(const std::string& function) {
        return function + ": key: " + SwTableFixture<B>::text(1);
    }
};
TYPED_TEST_SUITE(Operation, AllBindings, TableName);

TYPED_TEST(Operation, EntryWriteGoesThroughTheOneWithAResponseHandler) {
    const auto call = [this] { this->write(1); };
    EXPECT_EQ(this->tableLines(call),
              (Texts{this->withKey("entryWrite"), this->withKey("entryWriteWithResponseHandler")}));
    EXPECT_EQ(this->engineLine(call), "entryWriteGeneric:key: " + this->text(1));
}

TYPED_TEST(Operation, EntryWriteWithResponseHandlerGoesToTheEngine) {
    const auto call = [this] {
        this->table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr, {});
    };
    EXPECT_EQ(this->tableLines(call), Texts{this->withKey("entryWriteWithResponseHandler")});
    EXPECT_EQ(this->engineLine(call), "entryWriteGeneric:key: " + this->text(1));
}

TYPED_TEST(Operation, EntryRemoveGoesThroughTheOneWithAResponseHandler) {
    const auto call = [this] { this->remove(1); };
    EXPECT_EQ(this->tableLines(call), (Texts{this->withKey("entryRemove"),
                                             this->withKey("entryRemoveWithResponseHandler")}));
    EXPECT_EQ(this->engineLine(call), "entryRemoveGeneric: Key: " + this->text(1) + " ");
}

TYPED_TEST(Operation, EntryRemoveWithResponseHandlerGoesToTheEngine) {
    const auto call = [this] {
        this->table->entryRemoveWithResponseHandler(this->key(1), nullptr, {});
    };
    EXPECT_EQ(this->tableLines(call), Texts{this->withKey("entryRemoveWithResponseHandler")});
    EXPECT_EQ(this->engineLine(call), "entryRemoveGeneric: Key: " + this->text(1) + " ");
}

TYPED_TEST(Operation, EntryRemoveAllGoesThroughTheOneWithAResponseHandler) {
    const auto call = [this] { this->table->entryRemoveAll(nullptr); };
    EXPECT_EQ(this->tableLines(call),
              (Texts{"entryRemoveAll:", "entryRemoveAllWithResponseHandler:"}));
    EXPECT_EQ(this->engineLine(call), "entryRemoveAllGeneric:");
}

TYPED_TEST(Operation, EntryRemoveAllWithResponseHandlerGoesToTheEngine) {
    const auto call = [this] { this->table->entryRemoveAllWithResponseHandler(nullptr, {}); };
    EXPECT_EQ(this->tableLines(call), Texts{"entryRemoveAllWithResponseHandler:"});
    EXPECT_EQ(this->engineLine(call), "entryRemoveAllGeneric:");
}

TYPED_TEST(Operation, IsResolverEntryResolvedTracesItsName) {
    const auto change = this->change(Asic::EntryFlags::entryDelete, this->wrapper(1));
    EXPECT_EQ(this->tableLines([&] { this->table->isResolverEntryResolved(change); }),
              Texts{"isResolverEntryResolved:"});
}

TYPED_TEST(Operation, CommitEntryTracesItsNameAndGoesToTheEngine) {
    const auto change = this->change(Asic::EntryFlags::entryDelete, this->wrapper(1));
    const auto call = [&] { this->commit(change); };
    EXPECT_EQ(this->tableLines(call).front(), "commitEntry:");
    EXPECT_EQ(this->engineLine(call).substr(0, 18), "commitEntry:Entry:");
}

TYPED_TEST(Operation, EntryReadAndEntryAreOne) {
    this->committed(1, 5);
    typename TypeParam::Entry read;
    for (const auto& call :
         {std::function<void()>([&] { read = this->table->entryRead(this->key(1)); }),
          std::function<void()>([&] { read = this->table->entry(this->key(1)); })}) {
        EXPECT_EQ(this->tableLines(call),
                  (Texts{this->withKey("entryRead"), this->withKey("entryFromConfig")}));
        EXPECT_EQ(this->engineLine(call), "entryReadGeneric:");
        EXPECT_EQ(read, this->entry(1, 5));
    }
}

TYPED_TEST(Operation, EntryReadOfACommittedKeyTracesEachOfItsStepsInOrder) {
    this->committed(1, 5);
    const TraceCapture traces;
    this->table->entryRead(this->key(1));
    Texts lines;
    for (const TraceLine& line : traces.lines()) {
        EXPECT_EQ(line.level, 8);
        lines.push_back(line.className + "::" + line.function + ":" + line.text);
    }
    const std::string name = this->name() + "::";
    const std::string log = className<TypeParam>("EntryLog") + "::";
    EXPECT_EQ(
        lines,
        (Texts{name + this->withKey("entryRead"), "OrderedSwTableAccessor::entryReadGeneric:",
               log + this->withKey("entryHas") + fmt::format(" unitId:{}", this->table->unitId()),
               name + this->withKey("entryFromConfig"),
               "OrderedSwTableAccessor::entryFromConfig:key: " + this->text(1)}));
}

TYPED_TEST(Operation, EntryFromConfigTracesItsNameAndGoesToTheEngine) {
    const auto call = [this] { this->table->entryFromConfig(this->key(1)); };
    EXPECT_EQ(this->tableLines(call), Texts{this->withKey("entryFromConfig")});
    EXPECT_EQ(this->engineLine(call), "entryFromConfig:key: " + this->text(1));
}

TYPED_TEST(Operation, EntryHasTracesItsNameAndGoesToTheEngine) {
    const auto call = [this] { this->table->entryHas(this->key(1)); };
    EXPECT_EQ(this->tableLines(call), Texts{this->withKey("entryHas")});
    EXPECT_EQ(this->engineLine(call), "entryHas:key: " + this->text(1));
}

TYPED_TEST(Operation, EntrysTracesItsName) {
    EXPECT_EQ(this->tableLines([this] { this->table->entrys(); }), Texts{"entrys:"});
}

TYPED_TEST(Operation, WalksTraceTheirNames) {
    EXPECT_EQ(this->tableLines([this] { this->table->initIterState(); }), Texts{"initIterState:"});
    EXPECT_EQ(this->tableLines([this] { this->table->initIterStateFromKey(this->key(1)); }),
              Texts{this->withKey("initIterStateFromKey")});
    EXPECT_EQ(this->tableLines([this] { this->table->entryIteratorConst(); }),
              (Texts{"entryIteratorConst:", "initIterState:"}));
    EXPECT_EQ(this->tableLines([this] { this->table->entryIteratorConst(this->key(1)); }),
              (Texts{this->withKey("entryIteratorConst"), this->withKey("initIterStateFromKey")}));
}

TYPED_TEST(Operation, TableStatusVersionTracesItsNameAndGoesToTheEngine) {
    const auto call = [this] { this->table->tableStatusVersion({0}); };
    EXPECT_EQ(this->tableLines(call), Texts{"tableStatusVersion:"});
    EXPECT_EQ(this->engineLine(call), "tableStatusVersion:tableVersion: 0");
}

TYPED_TEST(Operation, UpdateEntryTracesItsName) {
    EXPECT_EQ(this->tableLines([this] { this->table->updateEntry(this->key(1)); }),
              Texts{this->withKey("updateEntry")});
}

TYPED_TEST(Operation, ClearTableGoesToTheEngineWithItsFlagAndNothingElse) {
    for (const bool flag : {false, true}) {
        const auto call = [&] { this->table->clearTable(flag); };
        EXPECT_EQ(this->tableLines(call), Texts{"clearTable:"});
        const std::string line = this->engineLine(call);
        EXPECT_EQ(line.find(fmt::format("delAllEntries: releaseResources: {}, neededEntry:", flag)),
                  0U)
            << line;
    }
}

TYPED_TEST(Operation, RestoreEntriesTracesItsName) {
    const auto call = [this] { this->table->restoreEntries(); };
    EXPECT_EQ(this->tableLines(call), Texts{"restoreEntries:"});
    EXPECT_EQ(this->engineLine(call), TypeParam::Linkages::kCount > 0 ? "restoreEntries:" : "none");
}

TYPED_TEST(Operation, GetNeededEntrySetTracesItsName) {
    const auto wrapper = this->wrapper(1);
    EXPECT_EQ(this->tableLines([&] { this->table->getNeededEntrySet(wrapper); }),
              Texts{"getNeededEntrySet:"});
}

TYPED_TEST(Operation, SetRsrcPtrsTracesItsNameAndGoesToTheEngine) {
    const auto wrapper = this->wrapper(1);
    const auto call = [&] { this->table->setRsrcPtrs(wrapper, false); };
    EXPECT_EQ(this->tableLines(call), Texts{"setRsrcPtrs:"});
    EXPECT_EQ(this->engineLine(call), "setRsrcPtrs:key: " + this->text(1) + ", refresh: false");
}

// Under the names of the abstract class that feature code sees.

TYPED_TEST(Operation, TheAbstractClassHandsOverToTheNamedOperations) {
    TableOperations<typename TypeParam::Types>& swTable = *this->table;
    Answers answers;
    const auto lines = this->tableLines([&] {
        swTable.write(this->key(1), this->entry(1, 3), nullptr, answers.handler());
        EXPECT_TRUE(swTable.has(this->key(1)));
        EXPECT_EQ(swTable.count(), 1U);
        EXPECT_EQ(swTable.read(this->key(1)), this->entry(1, 3));
        swTable.remove(this->key(1), nullptr, {});
        swTable.removeAll(nullptr, {});
    });
    EXPECT_EQ(lines, (Texts{this->withKey("entryWriteWithResponseHandler"),
                            this->withKey("entryHas"), "entrys:", this->withKey("entryRead"),
                            this->withKey("entryRemoveWithResponseHandler"),
                            "entryRemoveAllWithResponseHandler:"}));
}

}  // namespace
