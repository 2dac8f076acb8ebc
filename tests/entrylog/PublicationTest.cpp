// In which order readers get to see the parts of a change: the process is killed at the store of
// each part, and what is visible then is what was stored before.

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>

#include "tests/entrylog/EntryLogFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

/// Makes the mapping of a file read-only, in part: from a byte of the file on, `size` bytes or all.
void protectMapping(const std::string& file, std::size_t from, std::size_t size = 0) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (!line.ends_with(file) || line.find(" rw-s ") == std::string::npos)
            continue;
        std::size_t used = 0;
        const std::uintptr_t begin = std::stoull(line, &used, 16);
        const std::uintptr_t end = std::stoull(line.substr(used + 1), nullptr, 16);
        const std::uintptr_t first = begin + from;
        // The address is the kernel's word for a mapping of this process.
        mprotect(reinterpret_cast<void*>(first), size == 0 ? end - first : size, PROT_READ);
        return;
    }
    std::_Exit(99);
}

template <class B>
class Publication : public EntryLogFixture<B> {
protected:
    Publication() {
        log = this->mountedLog();
        this->write(*log, 1);
        this->write(*log, 2);
    }

    /// Kills a copy of the process at the first store behind `from` of the file. What it has sealed
    /// stays.
    void killSealedAtStoreTo(const std::string& file, std::size_t from, std::size_t size,
                             const std::function<void()>& change) {
        EXPECT_EXIT(
            {
                std::signal(SIGSEGV, SIG_DFL);
                protectMapping(file, from, size);
                change();
                std::_Exit(0);
            },
            ::testing::KilledBySignal(SIGSEGV), "");
    }
    void killAtStoreTo(const std::string& file, std::size_t from, std::size_t size,
                       const std::function<void()>& change) {
        killSealedAtStoreTo(file, from, size, change);
        // What the copy has begun is its own; this process goes on as if it had never been.
        log->tableEntryLog()->journal().done();
    }
    void killBeforeRecord(const std::function<void()>& change) {
        killAtStoreTo(this->logFile(), KivShimo::detail::kAreasOffset, 0, change);
    }
    void killBeforePublishedVersion(const std::function<void()>& change) {
        killAtStoreTo(this->logFile(), KivShimo::detail::kDynamicOffset,
                      KivShimo::detail::kPageBytes, change);
    }
    void killBeforeAnnouncement(const std::function<void()>& change) {
        killAtStoreTo(this->announceFile(), KivShimo::detail::kDynamicOffset, 0, change);
    }

    /// Leaves a value as a store that was cut off does: its sequence is odd, its bytes are not its
    /// own.
    void tear(std::uint32_t number) {
        const auto value = *this->configReader().find(keyOf<B>(number));
        const std::string file = this->configFile(kUnit);
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(stream)), {});
        const std::string wanted(reinterpret_cast<const char*>(&value), sizeof(value));
        const std::size_t at = bytes.find(wanted, KivShimo::detail::kAreasOffset);
        ASSERT_NE(at, std::string::npos);
        // The key is read from what is torn, so it stays.
        using ConfigValue = typename EntryLog<B>::ConfigValue;
        using Slot = KivShimo::detail::MapSlot<ConfigValue>;
        const std::size_t sequence = at - offsetof(Slot, value) + offsetof(Slot, sequence);
        const std::size_t entry = at + offsetof(ConfigValue, logEntry) + sizeof(LogEntryHead);
        for (const std::size_t byte : {sequence, entry + sizeof(keyOf<B>(0))}) {
            stream.seekp(static_cast<std::streamoff>(byte)).put(static_cast<char>(bytes[byte] ^ 1));
        }
        ASSERT_TRUE(stream.flush().good());
    }
    /// Kills a write of key 1 between its seal and its first store, tears a value, starts again.
    void writeKilledBesideATornValue(std::optional<std::uint32_t> torn) {
        killSealedAtStoreTo(this->configFile(kUnit), KivShimo::detail::kAreasOffset, 0, writing());
        if (torn)
            tear(*torn);
        log = nullptr;
        this->agent.restart();
        log = this->mountedLog();
    }
    std::uint64_t corruptions() const { return log->tableConfigShimo(kUnit)->corruptions(); }

    bool valueIsThere() {
        const auto value = this->configReader().find(keyOf<B>(1));
        return value.has_value() && value->version.value == 3;
    }
    bool recordIsThere() { return this->logReader().find(3).has_value(); }
    bool versionIsPublished() { return this->logReader().scratchpad() == 3; }
    bool isAnnounced() { return this->announcements().size() == 3; }

    std::function<void()> writing() {
        return [this] { this->write(*log, 1); };
    }
    std::function<void()> deleting() {
        return [this] { this->del(*log, 1); };
    }
    std::function<void()> deletingAll() {
        return [this] { log->tableDel(nullptr, kUnit); };
    }

    typename EntryLogFixture<B>::LogPtr log;
};
TYPED_TEST_SUITE(Publication, AllBindings, TableName);

TYPED_TEST(Publication, ValueComesBeforeTheRecord) {
    for (const auto& change : {this->writing(), this->deleting(), this->deletingAll()}) {
        this->killBeforeRecord(change);
        EXPECT_TRUE(this->valueIsThere());
        EXPECT_FALSE(this->recordIsThere());
        EXPECT_FALSE(this->versionIsPublished());
        EXPECT_FALSE(this->isAnnounced());
        this->store(*this->log, 1, 1, false);
    }
}

TYPED_TEST(Publication, RecordComesBeforeThePublishedVersion) {
    for (const auto& change : {this->writing(), this->deleting(), this->deletingAll()}) {
        this->killBeforePublishedVersion(change);
        EXPECT_TRUE(this->valueIsThere());
        EXPECT_TRUE(this->recordIsThere());
        EXPECT_FALSE(this->versionIsPublished());
        EXPECT_FALSE(this->isAnnounced());
    }
}

TYPED_TEST(Publication, PublishedVersionComesBeforeTheAnnouncement) {
    for (const auto& change : {this->writing(), this->deleting(), this->deletingAll()}) {
        this->killBeforeAnnouncement(change);
        EXPECT_TRUE(this->recordIsThere());
        EXPECT_TRUE(this->versionIsPublished());
        EXPECT_FALSE(this->isAnnounced());
    }
}

TYPED_TEST(Publication, ChangeThatWasPublishedAndNotAnnouncedIsAnnouncedAtTheNextStart) {
    this->killBeforeAnnouncement(this->writing());
    this->log = nullptr;
    this->agent.restart();
    this->log = this->makeLog();
    EXPECT_EQ(this->log->tableVersion().value, 3U);
    const auto announced = this->announcements();
    ASSERT_EQ(announced.size(), 3U);
    EXPECT_EQ(announced[2].version, 3U);
}

TYPED_TEST(Publication, SealedWriteExcusesTheTornValueOfItsKey) {
    for (const std::optional<std::uint32_t> torn : {std::optional<std::uint32_t>(), {1U}}) {
        this->writeKilledBesideATornValue(torn);
        EXPECT_EQ(this->corruptions(), 0U);
        EXPECT_TRUE(this->configReader().find(keyOf<TypeParam>(1)).has_value());
    }
}

TYPED_TEST(Publication, SealedWriteExcusesNoTornValueOfAnotherKey) {
    this->writeKilledBesideATornValue(2);
    EXPECT_EQ(this->corruptions(), 1U);
    EXPECT_TRUE(this->valueIsThere());
    EXPECT_FALSE(this->configReader().find(keyOf<TypeParam>(2)).has_value());
}

}  // namespace
