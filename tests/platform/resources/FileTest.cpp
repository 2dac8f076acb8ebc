// The tables as the agent makes them: with their file in shared memory.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/Paths.h"
#include "platform/regdb/EntityManager.h"
#include "platform/resources/ResourceFile.h"
#include "tests/platform/resources/World.h"
#include "tests/support/InProcessAgent.h"

namespace ResourceTests {
namespace {

/// Spoils the number that a table file published last.
void spoilNewerNumber(const std::string& file) {
    using KivShimo::detail::DynamicHeader;
    using KivShimo::detail::VerifiedWord;
    constexpr auto kAt = static_cast<std::streamoff>(KivShimo::detail::kDynamicOffset +
                                                     offsetof(DynamicHeader, scratchpad));
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    VerifiedWord word{};
    stream.seekg(kAt);
    stream.read(reinterpret_cast<char*>(&word), sizeof(word));
    ++word.cells[word.cells[0].serial > word.cells[1].serial ? 0 : 1].value;
    stream.seekp(kAt);
    stream.write(reinterpret_cast<const char*>(&word), sizeof(word));
    ASSERT_TRUE(stream.good());
}

class ResourceFiles : public ::testing::Test {
protected:
    using Counters = VornCountersLib::CrpsIndexRequestResourceTable;
    using Policers = VornPolicerLib::PolicerIndexRequestResourceTable;

    ResourceFiles() {
        std::filesystem::remove_all(root_);
        std::filesystem::create_directory(root_);
        start();
    }
    ~ResourceFiles() override {
        stop();
        std::filesystem::remove_all(root_);
    }

    void start() {
        KivShimo::EntityManager::rootIs(kSystem, true, root_.string());
        counters = Brumo::make<Counters>("CrpsIndexRequest.Test", database, nullptr, loop, 100U);
        policers = Brumo::make<Policers>("PolicerIndexRequest.Test", database, nullptr, loop, 100U);
    }
    void stop() {
        counters = nullptr;
        policers = nullptr;
        KivShimo::EntityManager::forget(kSystem);
    }

    static constexpr const char* kSystem = "resource-files";
    const std::filesystem::path root_ = std::filesystem::temp_directory_path() /
                                        ("vorn-resource-files-" + std::to_string(::getpid()));
    Brumo::Ptr<Regdb::EntityManager> database = Brumo::make<Regdb::EntityManager>(kSystem, true);
    Kiv::ManualEventLoop loop;
    Brumo::Ptr<Counters> counters;
    Brumo::Ptr<Policers> policers;
};

TEST_F(ResourceFiles, AllocationsSurviveARestart) {
    VornPolicerLib::PolicerIndexRequestClientData data;
    data.rate = 1000;
    std::vector<std::uint32_t> counterIndexes;
    std::vector<std::uint16_t> policerIndexes;
    {
        const auto counterClient = counters->makeClientInstance();
        const auto policerClient = policers->makeClientInstance();
        for (std::uint32_t id = 1; id <= 20; ++id) {
            const auto counter = counterClient->request({.requestId = id}, nullptr);
            const auto policer = policerClient->request({.requestId = id}, data, nullptr);
            loop.runUntilIdle();
            counterClient->ackUpdate(counter, counter->updateVersion(), nullptr);
            policerClient->ackUpdate(policer, policer->updateVersion(), nullptr);
            counterIndexes.push_back(counter->counterIndex());
            policerIndexes.push_back(policer->policerIndex());
        }
        counters->assertConsistent();
        policers->assertConsistent();
    }
    stop();
    start();
    EXPECT_EQ(counters->entries(), 20U);
    EXPECT_EQ(policers->entries(), 20U);
    const auto counterClient = counters->makeClientInstance();
    const auto policerClient = policers->makeClientInstance();
    for (std::uint32_t id = 1; id <= 20; ++id) {
        const auto counter = counterClient->request({.requestId = id}, nullptr);
        const auto policer = policerClient->request({.requestId = id}, data, nullptr);
        EXPECT_EQ(counter->entryState(), EntryState::complete);
        EXPECT_EQ(counter->counterIndex(), counterIndexes.at(id - 1));
        EXPECT_EQ(policer->policerIndex(), policerIndexes.at(id - 1));
        EXPECT_EQ(policer->clientData(), data);
    }
    EXPECT_TRUE(loop.idle());
    counters->assertConsistent();
    policers->assertConsistent();
}

TEST_F(ResourceFiles, SweepEmptiesTheFileOfWhatNobodyClaims) {
    {
        const auto client = counters->makeClientInstance();
        const auto counter = client->request({.requestId = 1}, nullptr);
        loop.runUntilIdle();
        client->ackUpdate(counter, counter->updateVersion(), nullptr);
    }
    stop();
    start();
    EXPECT_EQ(counters->entries(), 1U);
    counters->sweepUnclaimed();
    counters->assertConsistent();
    EXPECT_EQ(counters->pool(), (Asic::ResourcePoolFigures{100, 0, 0}));
    stop();
    start();
    EXPECT_EQ(counters->entries(), 0U);
}

/// Versions of resources are announced and acknowledged like those of tables.
class ResourceVersions : public ::testing::Test {
protected:
    static constexpr Asic::SwTableId kCounterTable{0x2C080501};

    ResourceVersions() {
        const auto client = agent.counters()->makeClientInstance();
        for (std::uint32_t id = 1; id <= 3; ++id) {
            const auto counter = client->request({.requestId = id}, nullptr);
            agent.settle();
        }
        agent.acknowledgeAll();
        agent.settle();
    }
    std::uint64_t announced() { return agent.group()->announcedVersion(kCounterTable).value; }
    std::string file() {
        return KivShimo::tableFile(
            agent.root(), "resources/VornCountersLib/CrpsIndexRequest.CpuTrafficPolicyIngress");
    }
    /// The version of a new request.
    std::uint64_t nextVersion() {
        const auto client = agent.counters()->makeClientInstance();
        const auto counter = client->request({.requestId = 9}, nullptr);
        agent.settle();
        return announced();
    }

    TestSupport::InProcessAgent agent;
};

TEST_F(ResourceVersions, GoOnWhenTheFileIsLost) {
    const std::uint64_t before = announced();
    ASSERT_GE(before, 3U);
    agent.stop();
    ASSERT_TRUE(std::filesystem::remove(file()));
    agent.start();
    EXPECT_EQ(nextVersion(), before + 1);
}

TEST_F(ResourceVersions, GoOnWhenTheFileIsLostAndTheMountWasCutOff) {
    const std::uint64_t before = announced();
    agent.stop();
    ASSERT_TRUE(std::filesystem::remove(file()));
    KivShimo::EntityManager::rootIs("cut-off", true, agent.root());
    {
        const auto database = Brumo::make<Regdb::EntityManager>("cut-off", true);
        // As far as a process comes that is killed before it has read the file.
        const Asic::ResourceFileStore<VornCountersLib::CounterBinding> store(
            database, "CrpsIndexRequest.CpuTrafficPolicyIngress", 1024);
        EXPECT_TRUE(store.versionInDoubt());
    }
    KivShimo::EntityManager::forget("cut-off");
    agent.start();
    EXPECT_EQ(nextVersion(), before + 1);
}

TEST_F(ResourceVersions, GoOnWhenThePublishedNumberIsRotten) {
    const std::uint64_t before = announced();
    agent.stop();
    spoilNewerNumber(file());
    agent.start();
    EXPECT_EQ(nextVersion(), before + 1);
}

TEST_F(ResourceFiles, PoolIsNoLargerThanTheFile) {
    stop();
    const auto before = KivShimo::EntityManager::capacityCeiling();
    KivShimo::EntityManager::capacityCeilingIs(4);
    KivShimo::EntityManager::rootIs(kSystem, true, root_.string());
    const auto small = Brumo::make<Counters>("CrpsIndexRequest.Small", database, nullptr, loop);
    KivShimo::EntityManager::capacityCeilingIs(before);
    EXPECT_LE(small->pool().size, 4U);
    const auto client = small->makeClientInstance();
    std::vector<Brumo::Ptr<const Counters::ResourceHandle>> handles;
    for (std::uint32_t id = 1; id <= 10; ++id) {
        handles.push_back(client->request({.requestId = id}, nullptr));
    }
    loop.runUntilIdle();
    small->assertConsistent();
    EXPECT_EQ(small->pool().used, small->pool().size);
}

}  // namespace
}  // namespace ResourceTests
