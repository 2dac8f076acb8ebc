// Random sequences of everything that can happen to a resource table, against a plain reference
// that looks through lists.
#include <random>
#include <set>

#include "platform/brumo/Trace.h"
#include "tests/platform/resources/World.h"

namespace ResourceTests {
namespace {

constexpr std::uint32_t kPool = 6;
constexpr std::uint32_t kKeys = 8;

template <class Binding>
class Reference {
public:
    explicit Reference(std::uint64_t seed) : random_(seed) { holdTable(); }
    ~Reference() { held_.clear(); }
    Reference(const Reference&) = delete;
    Reference& operator=(const Reference&) = delete;

    void step() {
        const auto id = 1 + pick(kKeys);
        switch (pick(12)) {
            case 0:
            case 1:
            case 2:
                request(pick(2), id);
                break;
            case 3:
            case 4:
                ack(pick(2), id, maybeEntry());
                break;
            case 5:
            case 6:
                release(pick(2), id, maybeEntry());
                break;
            case 7:
                drop(id);
                break;
            case 8:
                move(id);
                break;
            case 9:
                fail(id);
                break;
            case 10:
                hardware();
                break;
            case 11:
                pick(10) == 0 ? restart() : turn();
                break;
            default:
                break;
        }
        compare();
    }

private:
    using Entry = Brumo::Ptr<TestEntry>;
    struct Allocation {
        EntryState state = EntryState::created;
        std::optional<std::uint32_t> index;
        std::uint64_t ticket = 0;
        std::uint64_t version = 0;
        std::set<std::uint32_t> users;
        bool tableKnown = false;  ///< whose changes use it
    };
    struct Returning {
        std::uint32_t id = 0;
        std::set<std::uint32_t> owed;
        std::uint64_t version = 0;
        bool revivable = false;
        bool tableKnown = false;
    };

    std::uint32_t pick(std::uint32_t below) {
        return std::uniform_int_distribution<std::uint32_t>(0, below - 1)(random_);
    }
    const auto& client(std::uint32_t number) { return number == 0 ? w_.a : w_.b; }

    /// A use that stays, so that the table knows whose log it is to wait for after a restart.
    void holdTable() {
        anchor_ = w_.use(w_.a, 100);
        w_.ack(w_.a, anchor_, newEntry());
    }
    Entry newEntry() {
        const auto entry = w_.entry();
        entries_.push_back(entry);
        return entry;
    }
    Entry maybeEntry() { return pick(4) == 0 ? nullptr : newEntry(); }
    bool over(const Entry& entry) const {
        return entry == nullptr || entry->entryState() == EntryState::complete ||
               (entry->logVersion().value != 0 && entry->logVersion().value <= acknowledged_);
    }
    std::uint32_t free() const {
        std::uint32_t used = 1;
        for (const auto& [id, allocation] : allocations_)
            used += allocation.index ? 1 : 0;
        return kPool - used - static_cast<std::uint32_t>(returning_.size());
    }
    void prune() {
        for (auto& [index, entries] : waits_) {
            std::erase_if(entries, [this](const Entry& entry) { return over(entry); });
        }
        std::erase_if(returning_, [this](const auto& item) {
            return item.second.owed.empty() && waits_[item.first].empty();
        });
    }

    void request(std::uint32_t number, std::uint32_t id) {
        const auto handle = w_.request(client(number), id);
        EXPECT_TRUE(!held_.contains(id) || handle == held_[id]);
        held_[id] = handle;
        if (allocations_.contains(id))
            return;
        Allocation& made = allocations_[id];
        made.ticket = ++ticket_;
        const auto newest = revivable(id);
        if (newest == returning_.end())
            return;
        made.index = newest->first;
        made.version = newest->second.version;
        made.tableKnown = newest->second.tableKnown;
        returning_.erase(newest);
    }
    auto revivable(std::uint32_t id) {
        auto newest = returning_.end();
        for (auto it = returning_.begin(); it != returning_.end(); ++it) {
            if (it->second.id != id || !it->second.revivable)
                continue;
            if (newest == returning_.end() || it->second.version > newest->second.version) {
                newest = it;
            }
        }
        return newest;
    }
    /// `last` stands for all that was handed out; null when only the entry is waited for.
    void endUses(std::uint32_t number, std::uint32_t id, const Entry& entry, const Entry& last) {
        for (auto& [index, returning] : returning_) {
            if (returning.id == id && returning.owed.erase(number) > 0) {
                waits_[index].push_back(entry);
                waits_[index].push_back(last);
            }
        }
    }
    void ack(std::uint32_t number, std::uint32_t id, const Entry& entry) {
        if (!held_.contains(id))
            return;
        w_.ack(client(number), held_[id], entry);
        Allocation& allocation = allocations_[id];
        allocation.users.insert(number);
        allocation.tableKnown |= entry != nullptr;
        const bool last = allocation.tableKnown && handedOut_ != 0;
        endUses(number, id, entry, last ? w_.entry(handedOut_) : nullptr);
    }
    void release(std::uint32_t number, std::uint32_t id, const Entry& entry) {
        if (!held_.contains(id))
            return;
        w_.release(client(number), held_[id], entry);
        Allocation& allocation = allocations_[id];
        allocation.tableKnown |= entry != nullptr;
        endUses(number, id, entry, nullptr);
        if (allocation.index)
            waits_[*allocation.index].push_back(entry);
        allocation.users.erase(number);
        if (!allocation.users.empty())
            return;
        EXPECT_TRUE(held_[id]->isPostReleaseProtoState());
        held_.erase(id);
        giveBack(id);
    }
    void giveBack(std::uint32_t id) {
        const Allocation& allocation = allocations_[id];
        if (allocation.index)
            returning_[*allocation.index] = {
                id, {}, allocation.version, true, allocation.tableKnown};
        allocations_.erase(id);
    }
    void drop(std::uint32_t id) {
        if (held_.erase(id) == 0)
            return;
        w_.check();
        if (!allocations_[id].index || allocations_[id].users.empty())
            giveBack(id);
    }
    void move(std::uint32_t id) {
        const auto found = allocations_.find(id);
        const bool possible = found != allocations_.end() && found->second.index &&
                              found->second.state != EntryState::created && free() > 0;
        EXPECT_EQ(w_.table->move(w_.key(id)), possible);
        w_.check();
        if (!possible)
            return;
        Allocation& moved = found->second;
        returning_[*moved.index] = {id, moved.users, moved.version, false, moved.tableKnown};
        moved.state = EntryState::complete;
        moved.version = ++version_;
        moved.index = indexOf(id);
    }
    void fail(std::uint32_t id) {
        const auto found = allocations_.find(id);
        const bool possible = found != allocations_.end() && found->second.index &&
                              found->second.state != EntryState::created;
        const bool lost = pick(2) == 0;
        EXPECT_EQ(lost ? w_.table->fail(w_.key(id)) : w_.table->restore(w_.key(id)), possible);
        w_.check();
        if (!possible)
            return;
        found->second.state = lost ? EntryState::resourceFailed : EntryState::complete;
    }
    void hardware() {
        if (entries_.empty())
            return;
        const Entry entry = entries_[pick(static_cast<std::uint32_t>(entries_.size()))];
        if (pick(3) == 0) {
            entry->entryStateIs(EntryState::complete);
        } else if (entry->logVersion().value == 0) {
            entry->logVersionIs({++handedOut_});
            w_.kept->handedOut[kUserTable] = {handedOut_};
        } else {
            acknowledged_ = std::max(acknowledged_, entry->logVersion().value);
            w_.acknowledge(acknowledged_);
        }
        std::erase_if(entries_, [this](const Entry& each) { return over(each); });
    }

    void turn() {
        w_.turn();
        prune();
        std::map<std::uint64_t, std::uint32_t> failed;
        std::map<std::uint64_t, std::uint32_t> pending;
        for (const auto& [id, allocation] : allocations_) {
            if (allocation.state == EntryState::exhausted)
                failed[allocation.ticket] = id;
            if (allocation.state == EntryState::created)
                pending[allocation.ticket] = id;
        }
        // Reserved: an index that an unanswered request has already is not free any more.
        for (const auto& queue : {failed, pending}) {
            for (const auto& [ticket, id] : queue) {
                Allocation& allocation = allocations_[id];
                if (!allocation.index && free() == 0) {
                    allocation.state = EntryState::exhausted;
                    continue;
                }
                allocation.state = EntryState::complete;
                allocation.version = ++version_;
                const auto index = indexOf(id);
                EXPECT_EQ(allocation.index.value_or(index), index) << "reserved for the key";
                allocation.index = index;
            }
        }
    }
    std::uint32_t indexOf(std::uint32_t id) {
        for (const auto& info : w_.table->keys()) {
            if (info.key == w_.key(id))
                return info.index;
        }
        ADD_FAILURE() << "key " << id << " is not known";
        return 0;
    }

    void restart() {
        anchor_ = nullptr;
        std::map<std::uint32_t, Allocation> before;
        for (const auto& [id, allocation] : allocations_) {
            if (allocation.index)
                before[id] = allocation;
        }
        // Handles that outlive the process give nothing back.
        auto outliving = std::move(held_);
        held_.clear();
        w_.restart();
        outliving.clear();
        w_.check();
        allocations_.clear();
        entries_.clear();
        for (auto& [index, entries] : waits_)
            entries.clear();
        for (auto& [index, returning] : returning_) {
            returning.owed.clear();
            returning.revivable = !before.contains(returning.id);
        }
        holdTable();
        for (const auto& [id, allocation] : before) {
            if (pick(4) == 0)
                continue;  // the sweep takes it
            held_[id] = w_.request(client(0), id);
            EXPECT_EQ(held_[id]->entryState(), EntryState::complete);
            EXPECT_EQ(w_.index(held_[id]), *allocation.index);
            const Entry entry = maybeEntry();
            w_.ack(client(0), held_[id], entry);
            for (const auto& [index, returning] : returning_) {
                if (returning.id == id)
                    waits_[index].push_back(entry);
            }
            Allocation& claimed = allocations_[id] = allocation;
            claimed.tableKnown |= entry != nullptr;
            claimed.state = EntryState::complete;
            claimed.users = {0};
        }
        w_.table->sweepUnclaimed();
        const Entry all = w_.entry(handedOut_);
        for (const auto& [id, allocation] : before) {
            waits_[*allocation.index].push_back(handedOut_ == 0 ? nullptr : all);
            if (allocations_.contains(id))
                continue;
            returning_[*allocation.index] = {
                id, {}, allocation.version, true, allocation.tableKnown};
        }
        for (const auto& [index, returning] : returning_) {
            waits_[index].push_back(handedOut_ == 0 ? nullptr : all);
        }
    }

    void compare() {
        prune();
        w_.check();
        std::uint32_t used = 1;
        for (const auto& [id, allocation] : allocations_) {
            used += allocation.index ? 1 : 0;
            if (!allocation.index)
                continue;
            EXPECT_TRUE(!returning_.contains(*allocation.index)) << "index reused too early";
            if (held_.contains(id) && allocation.state != EntryState::created) {
                EXPECT_EQ(w_.index(held_[id]), *allocation.index);
            }
        }
        for (const auto& [id, handle] : held_) {
            EXPECT_EQ(handle->entryState(), allocations_[id].state) << id;
        }
        EXPECT_EQ(w_.used(), used);
        EXPECT_EQ(w_.returning(), returning_.size());
        EXPECT_EQ(w_.table->entries(), allocations_.size() + 1);
    }

    std::mt19937_64 random_;
    World<Binding> w_{kPool};
    typename World<Binding>::HandlePtr anchor_;
    std::map<std::uint32_t, typename World<Binding>::HandlePtr> held_;
    std::map<std::uint32_t, Allocation> allocations_;
    std::map<std::uint32_t, Returning> returning_;
    std::map<std::uint32_t, std::vector<Entry>> waits_;  ///< by index
    std::vector<Entry> entries_;
    std::uint64_t ticket_ = 0;
    std::uint64_t version_ = 1;
    std::uint64_t handedOut_ = 0;
    std::uint64_t acknowledged_ = 0;
};

template <class Binding>
class ResourceSequence : public ::testing::Test {};
TYPED_TEST_SUITE(ResourceSequence, Bindings);

TYPED_TEST(ResourceSequence, AgreesWithThePlainReference) {
    const std::string filter = Brumo::traceFilter();
    Brumo::traceFilterIs("*/0");
    for (std::uint64_t seed = 1; seed <= 60 && !this->HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Reference<TypeParam> reference(seed);
        for (int step = 0; step < 400 && !this->HasFailure(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            reference.step();
        }
    }
    Brumo::traceFilterIs(filter);
}

}  // namespace
}  // namespace ResourceTests
