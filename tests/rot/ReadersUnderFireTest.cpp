// Readers beside a writer that churns, dies in the middle and comes back: every value is whole, no
// reader waits without an end.
//
// Each value says what it has to be: its words are a function of its key and its version.
// VORN_TORTURE=full reads ten million times.
#include <csignal>
#include <ctime>
#include <random>
#include <thread>

#include "platform/brumo/Assert.h"
#include "platform/brumo/Trace.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/VersionLogReader.h"
#include "tests/platform/kivshimo/Fixture.h"

namespace KivShimo::Test {
namespace {

constexpr std::uint32_t kFireKeys = 40;
constexpr std::uint64_t kSlots = 64;
constexpr std::uint64_t kRecordsKept = 40;
constexpr long kLongestLife_ns = 20'000'000;

std::uint64_t readsWanted() {
    const char* const wanted = std::getenv("VORN_TORTURE");
    const bool isLong = wanted != nullptr && std::string(wanted) == "full";
    return isLong ? 10'000'000 : 200'000;
}

Item versioned(std::uint64_t id, std::uint64_t version) {
    Item result = item(id, version);
    for (std::size_t i = 1; i < std::size(result.payload); ++i)
        result.payload[i] = detail::mixed(detail::mixed(id, version), i);
    return result;
}

/// What a reader has seen, and whether it was as it has to be.
struct Seen {
    std::uint64_t reads = 0;
    std::uint64_t values = 0;  ///< that were there
    std::uint64_t busy = 0;
    std::string wrong;  ///< the first thing

    void require(bool good, const std::string& what) {
        if (!good && wrong.empty())
            wrong = what;
    }
};

/// Reads at random from a map and a change log.
class FiredAt {
public:
    FiredAt(const std::string& itemsFile, const std::string& changesFile, unsigned seed)
        : items_(itemsFile, kItemType, "items"),
          changes_(changesFile, kChangeType, "changes"),
          random_(seed) {}

    void read() {
        ++seen_.reads;
        try {
            switch (random_() % 5) {
                case 0:
                    return readNext();
                case 1:
                    return readRecord();
                case 2:
                    return readRecords();
                case 3:
                    if (random_() % 20 == 0)
                        readAll();
                    return;
                default:
                    return readItem();
            }
        } catch (const BusyError&) {
            ++seen_.busy;
        } catch (const CorruptionError& error) {
            seen_.require(false, error.what());
        }
    }
    Seen& seen() { return seen_; }

private:
    void check(const Item& value) {
        ++seen_.values;
        const std::uint64_t version = value.payload[0];
        seen_.require(value == versioned(value.key().id, version), "torn value");
        seen_.require(value.key().id < kFireKeys, "value of no key");
        if (value.key().id < kFireKeys) {
            std::uint64_t& before = lastOf_[value.key().id];
            seen_.require(before <= version, "value that goes back");
            before = version;
        }
    }
    void readItem() {
        const auto id = static_cast<std::uint32_t>(random_() % kFireKeys);
        const auto value = items_.find(item(id, 0).key());
        // One key is never erased.
        seen_.require(value.has_value() || id != 0 || lastOf_[0] == 0, "a kept key is missing");
        if (value) {
            seen_.require(value->key().id == id, "value of another key");
            check(*value);
        }
    }
    void readNext() {
        const ItemKey key = item(random_() % kFireKeys, 0).key();
        if (const auto value = items_.next(key)) {
            seen_.require(Kiv::KeyOrder<ItemKey>(key) < Kiv::KeyOrder<ItemKey>(value->key()),
                          "not in order");
            check(*value);
        }
    }
    void readAll() {
        std::uint64_t count = 0;
        items_.visitSlots(
            [&](const Item& value) {
                check(value);
                seen_.require(++count <= kSlots, "more values than slots");
            },
            [&](const CorruptionError& error) { seen_.require(false, error.what()); });
    }
    void check(const ChangeRecord& record) {
        ++seen_.values;
        seen_.require(record == change(record.version), "torn record");
    }
    void readRecord() {
        const std::uint64_t published = changes_.scratchpad();
        seen_.require(published >= published_, "published version that goes back");
        published_ = published;
        if (published <= kRecordsKept)
            return;
        const std::uint64_t version = published - random_() % kRecordsKept / 2;
        if (const auto record = changes_.find(version)) {
            seen_.require(record->version == version, "record of another version");
            check(*record);
        } else {
            const std::uint64_t now = changes_.scratchpad();
            seen_.require(now >= version + kRecordsKept / 2,
                          fmt::format("record {} is missing: published {}, then {}", version,
                                      published, now));
        }
    }
    void readRecords() {
        std::uint64_t before = published_ > 10 ? published_ - 10 : 0;
        for (auto record = changes_.next(before, published_); record;
             record = changes_.next(before, published_)) {
            check(*record);
            seen_.require(record->version > before, "not in order");
            before = record->version;
        }
    }

    MapReader<Item> items_;
    VersionLogReader<ChangeRecord> changes_;
    std::mt19937_64 random_;
    std::uint64_t lastOf_[kFireKeys]{};
    std::uint64_t published_ = 0;
    Seen seen_;
};

/// Follows the announcements and says how far it is.
class Follower {
public:
    Follower(const std::string& root, const std::string& file)
        : acks_(root, "acks"), log_(*AnnounceLogReader::open(file)), position_(acks_.consumed()) {}

    /// Counts what was there.
    void read() {
        try {
            const auto next = log_.next(position_ + 1);
            if (!next)
                return std::this_thread::yield();
            ++seen_.reads;
            ++seen_.values;
            seen_.require(next->tableId == next->version % 7, "torn announcement");
            seen_.require(next->version > version_, "version that goes back");
            seen_.require(next->needed.size() == next->version % 5, "needed versions");
            for (const NeededVersion& needed : next->needed)
                seen_.require(needed.version == next->version + needed.tableId, "torn needed");
            version_ = next->version;
            position_ = next->position;
            acks_.consumedIs(position_);
        } catch (const CorruptionError& error) {
            seen_.require(false, error.what());
        }
    }
    Seen& seen() { return seen_; }

private:
    AckMapWriter acks_;
    AnnounceLogReader log_;
    std::uint64_t position_;
    std::uint64_t version_ = 0;
    Seen seen_;
};

class ReadersUnderFire : public ShimoTest {
protected:
    /// The writer's life: goes on where the one before has stopped.
    class Writer {
    public:
        Writer(Brumo::Ptr<ItemTable> items, Brumo::Ptr<ChangeTable> changes,
               const std::string& root)
            : items_(std::move(items)),
              changes_(std::move(changes)),
              announcements_(root, "announcements", kSlots),
              acksFile_(tableFile(root, "acks")),
              version_(std::max(changes_->collectionControl().scratchpad(),
                                changes_->changes.highestBound())),
              random_(version_) {
            changes_->collectionControl().scratchpadIs(version_);
        }

        void change() {
            const std::uint64_t version = ++version_;
            const std::uint64_t id = random_() % kFireKeys;
            items_->items.insertOrReplace(versioned(id, version));
            if (random_() % 3 == 0 && id != 0)
                items_->items.erase(item(id, 0).key());
            if (version > kRecordsKept) {
                changes_->changes.visitVersions(1, version - kRecordsKept, [&](std::uint64_t old) {
                    changes_->changes.erase(old);
                });
            }
            Brumo::require(changes_->changes.insert(KivShimo::Test::change(version)),
                           "the log has room");
            changes_->collectionControl().scratchpadIs(version);
            announce(version);
        }

    private:
        void announce(std::uint64_t version) {
            if (!acks_)
                acks_ = AckMapReader::open(acksFile_);
            if (acks_)
                announcements_.consumedIs(acks_->consumed());
            std::vector<NeededVersion> needed;
            for (std::uint32_t i = 0; i < version % 5; ++i)
                needed.push_back({i, version + i});
            announcements_.append(static_cast<std::uint32_t>(version % 7), version, needed);
        }

        Brumo::Ptr<ItemTable> items_;
        Brumo::Ptr<ChangeTable> changes_;
        AnnounceLogWriter announcements_;
        std::string acksFile_;
        std::optional<AckMapReader> acks_;
        std::uint64_t version_;
        std::mt19937_64 random_;
    };

    Writer writer() { return {items(kSlots), changes(kSlots), root_}; }
    /// Makes the files, for readers to open.
    void makeFiles() {
        writer().change();
        const AckMapWriter acks(root_, "acks");
        restart();
    }
    FiredAt firedAt(unsigned seed) const { return {itemsFile(), changesFile(), seed}; }
    Follower follower() const { return {root_, file("announcements")}; }

    /// Reads in another process; it ends with 0 when everything was as it has to be.
    template <class Reader>
    static pid_t readerProcess(Reader&& make, std::uint64_t reads) {
        const pid_t child = fork();
        if (child != 0)
            return child;
        auto reader = make();
        while (reader.seen().reads < reads && reader.seen().wrong.empty())
            reader.read();
        const Seen& seen = reader.seen();
        fmt::print("{} reads, {} values, {} times busy {}\n", seen.reads, seen.values, seen.busy,
                   seen.wrong);
        std::fflush(stdout);
        _exit(seen.wrong.empty() && seen.values > reads / 100 ? 0 : 1);
    }

    /// A writer that is killed after some time, at any instruction.
    pid_t writerProcess(long life_ns) {
        const pid_t child = fork();
        if (child != 0)
            return child;
        Brumo::traceFilterIs("*/0");
        sigevent event{};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGKILL;
        timer_t timer{};
        itimerspec when{};
        when.it_value.tv_nsec = life_ns;
        Writer life = writer();
        if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
            timer_settime(timer, 0, &when, nullptr) != 0) {
            _exit(1);
        }
        for (;;)
            life.change();
    }

    /// Kills writers one after the other until all readers have ended.
    unsigned livesWhile(std::vector<pid_t> readers) {
        std::mt19937 random(1);
        unsigned lives = 0;
        while (!readers.empty()) {
            int status = 0;
            const pid_t life = writerProcess(1 + static_cast<long>(random()) % kLongestLife_ns);
            EXPECT_EQ(waitpid(life, &status, 0), life);
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
            ++lives;
            std::erase_if(readers, [&](pid_t reader) {
                if (waitpid(reader, &status, WNOHANG) != reader)
                    return false;
                EXPECT_EQ(status, 0);
                return true;
            });
        }
        return lives;
    }
};

TEST_F(ReadersUnderFire, OfOtherProcessesSeeWholeValuesWhileWritersDie) {
    makeFiles();
    const std::uint64_t reads = readsWanted() / 2;
    std::vector<pid_t> readers;
    for (unsigned seed = 1; seed <= 2; ++seed)
        readers.push_back(readerProcess([&] { return firedAt(seed); }, reads));
    readers.push_back(readerProcess([&] { return follower(); }, reads / 10));
    const unsigned lives = livesWhile(readers);
    fmt::print("{} writers were killed\n", lives);
    EXPECT_GT(lives, 2U);
    const auto last = items(kSlots);
    EXPECT_EQ(last->corruptions(), 0U);
    last->items.assertConsistent();
    const auto log = changes(kSlots);
    EXPECT_EQ(log->corruptions(), 0U);
    log->changes.assertConsistent();
}

TEST_F(ReadersUnderFire, OfOtherMappingsInTheProcessSeeWholeValues) {
    makeFiles();
    std::atomic<bool> isDone{false};
    Writer life = writer();
    std::vector<Seen> seen(3);
    std::vector<std::thread> readers;
    const std::uint64_t reads = readsWanted() / 4;
    const auto run = [](auto reader, Seen& result, std::uint64_t wanted) {
        while (reader.seen().reads < wanted && reader.seen().wrong.empty())
            reader.read();
        result = reader.seen();
    };
    readers.emplace_back([&] { run(firedAt(1), seen[0], reads); });
    readers.emplace_back([&] { run(firedAt(2), seen[1], reads); });
    readers.emplace_back([&] { run(follower(), seen[2], reads / 10); });
    std::thread writing([&] {
        while (!isDone.load())
            life.change();
    });
    for (std::thread& reader : readers)
        reader.join();
    isDone = true;
    writing.join();
    for (const Seen& each : seen) {
        EXPECT_EQ(each.wrong, "");
        EXPECT_GE(each.values, reads / 100);
        fmt::print("{} reads, {} values, {} times busy\n", each.reads, each.values, each.busy);
    }
}

}  // namespace
}  // namespace KivShimo::Test
