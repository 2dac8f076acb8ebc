// What a restart costs with many entries, each with a resource of its own: counted, not timed.
#include <gtest/gtest.h>

#include "interface/InterfaceImpl.h"
#include "platform/resources/ResourceTableBody.h"
#include "swtable/SwTableImpl.h"
#include "tests/fourthtable/QueueShareTypes.h"
#include "tests/support/InProcessAgent.h"
#include "tests/support/TraceCapture.h"

namespace Incidents {
namespace {

using namespace VornPolicyCpu;

/// A request key that counts how often it was compared and hashed.
struct CountedKey {
    std::uint64_t requestId = 0;

    static inline std::uint64_t uses = 0;

    std::strong_ordering operator<=>(const CountedKey& other) const {
        ++uses;
        return requestId <=> other.requestId;
    }
    bool operator==(const CountedKey& other) const {
        ++uses;
        return requestId == other.requestId;
    }
    bool isEq(const CountedKey& other) const { return *this == other; }
    std::uint32_t hash(unsigned seed) const {
        ++uses;
        return Asic::hashOf64(requestId, seed);
    }
    std::string toText() const { return std::to_string(requestId); }
};

class CountedHandle final : public Asic::ResourceHandle<CountedKey> {
public:
    using ResourceHandle::ResourceHandle;

    std::uint32_t index = 0xFFFFFFFF;
};

struct CountedResources {
    using Key = CountedKey;
    using Handle = CountedHandle;
    using ClientData = Asic::NoClientData;

    static constexpr std::string_view kLibrary = "Tests";
    static constexpr std::string_view kClassName = "CountedResourceTable";
    static constexpr std::uint64_t kIndexLimit = 0xFFFFFFFF;

    static std::uint8_t featureId(const Key& /*key*/) { return 1; }
    static void valuesIs(Handle& handle, std::uint32_t index, std::uint8_t /*featureId*/,
                         const ClientData& /*clientData*/) {
        handle.index = index;
    }
    static bool shows(const Handle& handle, std::uint32_t index, std::uint8_t /*featureId*/,
                      const ClientData& /*clientData*/) {
        return handle.index == index;
    }
};
const KivShimo::TableTypeRegistration countedFile(
    Asic::ResourceFile<CountedResources>::typeName(),
    KivShimo::tableTypeOf<Asic::ResourceFile<CountedResources>>());

class CountedResourceTable final : public Asic::ResourceTable<CountedResources> {
public:
    class Client final : public Asic::ResourceClient<CountedResources> {
    public:
        using ResourceClient::ResourceClient;
        auto request(const CountedKey& key) { return requestOf(key, {}); }
    };

    using ResourceTable::ResourceTable;
    Brumo::Ptr<Client> makeClientInstance() {
        return Brumo::make<Client>(Brumo::Ptr<ResourceTable>(this));
    }
};

struct CountedLinkage {
    using ResourceTable = CountedResourceTable;
    using ClientInstance = CountedResourceTable::Client;
    using ResourceHandle = CountedHandle;
    using ResourceKey = CountedKey;

    static constexpr std::string_view kClassName = "CountedLinkage";
    static constexpr std::string_view kResourceLibrary = CountedResources::kLibrary;
    static constexpr std::string_view kResourceTable = "Counted";

    static ResourceKey resourceKeyFromEntry(const QueueShareEntry& entry) {
        return {entry.counterRequestKey.requestId};
    }
    static auto request(ClientInstance& client, const QueueShareEntry& entry) {
        return client.request(resourceKeyFromEntry(entry));
    }
    static void setResolvedFields(QueueShareEntry& entry, const ResourceHandle* handle) {
        entry.counterIndex = handle == nullptr ? 0xFFFFFFFF : handle->index;
    }
    static void retrieveClientData(QueueShareEntry&, const ResourceHandle&) {}
};
static_assert(LinkageBinding<CountedLinkage, QueueShareEntry>);

struct CountedBinding : TableBinding<CountedBinding, QueueShareTypes, CountedLinkage> {};
const ShimoTypes<QueueShareTypes> countedTypes;

struct Work {
    std::uint64_t keyUses = 0;       ///< of the entries
    std::uint64_t resourceUses = 0;  ///< of the resources' keys
    std::uint64_t steps = 0;         ///< that are traced

    static Work sofar(const TestSupport::TraceCapture& traces) {
        return {QueueShareKey::uses, CountedKey::uses, traces.lines().size()};
    }
    Work since(const Work& before) const {
        return {keyUses - before.keyUses, resourceUses - before.resourceUses, steps - before.steps};
    }
};

class RestartWork : public testing::Test {
protected:
    using Family = Interface<CountedBinding>;
    static constexpr std::uint32_t kMostEntries = 8000;

    RestartWork() { open(); }
    ~RestartWork() override { close(); }
    RestartWork(const RestartWork&) = delete;
    RestartWork& operator=(const RestartWork&) = delete;

    void open() {
        resources_ = Brumo::make<CountedResourceTable>(
            std::string(CountedLinkage::kResourceTable), Asic::SwTableId(0x2C080503), kMostEntries,
            agent_.stateDatabase(), agent_.group(), agent_.loop());
        agent_.orderedTableIntf()->resourceTableIs(std::string(CountedLinkage::kResourceLibrary),
                                                   std::string(CountedLinkage::kResourceTable),
                                                   resources_);
        table_ = Family::getIntf(agent_.orderedTableIntf())->makeSwTable({1}, {}, false);
    }
    void close() {
        table_ = nullptr;
        TestSupport::endFamily(Family::registryName());
        resources_ = nullptr;
    }

    void writeUpTo(std::uint32_t entries) {
        for (std::uint32_t port = table_->entrys() + 1; port <= entries; ++port) {
            QueueShareEntry entry;
            entry.key = {port, 1};
            entry.counterRequestKey.requestId = port;
            table_->entryWrite(entry.key, entry, nullptr);
        }
        agent_.settle();
    }
    /// From the end of one process to where the next has nothing left to do.
    Work ofRestart() {
        const auto version = table_->logVersion();
        const TestSupport::TraceCapture traces;
        const Work before = Work::sofar(traces);
        close();
        agent_.restart();
        open();
        resources_->sweepUnclaimed();
        agent_.settle();
        const Work work = Work::sofar(traces).since(before);
        EXPECT_EQ(table_->logVersion(), version) << "nothing has to be written";
        EXPECT_EQ(resources_->pool().used, table_->entrys());
        return work;
    }

    TestSupport::InProcessAgent agent_{{.capacityCeiling = 32768}};
    Brumo::Ptr<CountedResourceTable> resources_;
    Brumo::Ptr<CountedBinding::SwTable> table_;
};

TEST_F(RestartWork, WithThousandsOfEntriesAndAsManyResourcesGrowsWithTheirNumberNotItsSquare) {
    constexpr std::uint32_t kFewer = kMostEntries / 4;
    writeUpTo(kFewer);
    const Work few = ofRestart();
    writeUpTo(kMostEntries);
    const Work many = ofRestart();
    ASSERT_EQ(table_->entrys(), kMostEntries);
    EXPECT_GT(few.keyUses, kFewer);
    EXPECT_GT(few.resourceUses, kFewer);
    EXPECT_GT(few.steps, kFewer);
    // Four times as many entries; the square would be 16 times as much.
    EXPECT_LT(many.keyUses, 6 * few.keyUses);
    EXPECT_LT(many.resourceUses, 6 * few.resourceUses);
    EXPECT_LT(many.steps, 6 * few.steps);
}

}  // namespace
}  // namespace Incidents
