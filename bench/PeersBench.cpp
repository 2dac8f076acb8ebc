// The work of a crash-safe write, one value under its key and one change record, in the stores that
// people would otherwise use. None of them syncs to a disk.
#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <lmdb.h>
#include <sqlite3.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <fmt/format.h>

#include "bench/Keys.h"
#include "bench/Rounds.h"
#include "tests/support/RealProcess.h"
#include "tests/support/TempDir.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace Bench {
namespace {

using Value = VornPolicyCpu::PolicyCpuV6TcamEntryConfigShimoEntry;
using Record = VornPolicyCpu::PolicyCpuV6TcamEntryLogShimoEntry;

/// A change, made anew for each write.
struct Change {
    std::uint64_t key;
    std::uint64_t version;
    Value value;
    Record record;

    Change(std::uint32_t number, std::uint64_t ofVersion) : key(number), version(ofVersion) {
        value.entryKey = value.logEntry.key = record.key = keyOf(number);
        value.logEntry.priority = static_cast<std::uint32_t>(version);
        value.version = record.version = {version};
    }
};

template <class Store>
void writesOneByOne(benchmark::State& state) {
    static Store store;
    inRounds(
        state,
        [](std::uint32_t number) {
            store.begin();
            store.write(Change(number, store.nextVersion()));
            store.commit();
        },
        [] { store.forgetChanges(); });
}

template <class Store, unsigned kBatch>
void writesInBatches(benchmark::State& state) {
    static_assert(kRound % kBatch == 0);
    static Store store;
    static unsigned inBatch = 0;
    inRounds(
        state,
        [](std::uint32_t number) {
            if (inBatch == 0)
                store.begin();
            store.write(Change(number, store.nextVersion()));
            if (++inBatch == kBatch) {
                store.commit();
                inBatch = 0;
            }
        },
        [] { store.forgetChanges(); });
}

class Versions {
public:
    std::uint64_t nextVersion() { return ++version_; }

private:
    std::uint64_t version_ = 0;
};

// LMDB

class Lmdb : public Versions {
public:
    Lmdb() {
        MDB_env* env = nullptr;
        check(mdb_env_create(&env));
        env_.reset(env);
        check(mdb_env_set_mapsize(env, std::size_t{1} << 30U));
        check(mdb_env_set_maxdbs(env, 2));
        check(mdb_env_open(env, folder_.path().c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0640));
        begin();
        check(mdb_dbi_open(txn_, "values", MDB_CREATE | MDB_INTEGERKEY, &values_));
        check(mdb_dbi_open(txn_, "changes", MDB_CREATE | MDB_INTEGERKEY, &changes_));
        for (std::uint32_t number = 0; number < kKeys; ++number)
            write(Change(number, nextVersion()));
        commit();
        forgetChanges();
    }
    void begin() { check(mdb_txn_begin(env_.get(), nullptr, 0, &txn_)); }
    void write(const Change& change) {
        put(values_, change.key, change.value, 0);
        put(changes_, change.version, change.record, MDB_APPEND);
    }
    void commit() { check(mdb_txn_commit(txn_)); }
    void forgetChanges() {
        begin();
        check(mdb_drop(txn_, changes_, 0));
        commit();
    }

private:
    static void check(int error) {
        if (error != 0)
            throw std::runtime_error(std::string("LMDB: ") + mdb_strerror(error));
    }
    template <class T>
    void put(MDB_dbi database, std::uint64_t key, const T& value, unsigned flags) {
        MDB_val name{sizeof(key), &key};
        MDB_val content{sizeof(value), const_cast<T*>(&value)};
        check(mdb_put(txn_, database, &name, &content, flags));
    }
    struct Close {
        void operator()(MDB_env* env) const { mdb_env_close(env); }
    };

    TestSupport::TempDir folder_;
    std::unique_ptr<MDB_env, Close> env_;
    MDB_txn* txn_ = nullptr;  ///< between begin and commit
    MDB_dbi values_ = 0;
    MDB_dbi changes_ = 0;
};

void lmdb(benchmark::State& state) {
    writesOneByOne<Lmdb>(state);
}
BENCHMARK(lmdb)->UseManualTime();

void lmdbBy64(benchmark::State& state) {
    writesInBatches<Lmdb, 64>(state);
}
BENCHMARK(lmdbBy64)->UseManualTime();

// SQLite

class Sqlite : public Versions {
public:
    Sqlite() {
        sqlite3* database = nullptr;
        const int error = sqlite3_open(folder_.file("peer.db").c_str(), &database);
        database_.reset(database);
        check(error == SQLITE_OK);
        run("PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF;"
            "CREATE TABLE value(key INTEGER PRIMARY KEY, content BLOB);"
            "CREATE TABLE change(version INTEGER PRIMARY KEY, content BLOB)");
        begin_ = prepared("BEGIN");
        value_ = prepared("INSERT OR REPLACE INTO value VALUES(?, ?)");
        change_ = prepared("INSERT INTO change VALUES(?, ?)");
        commit_ = prepared("COMMIT");
        begin();
        for (std::uint32_t number = 0; number < kKeys; ++number)
            write(Change(number, nextVersion()));
        commit();
        forgetChanges();
    }
    void begin() { step(*begin_); }
    void write(const Change& change) {
        insert(*value_, change.key, &change.value, sizeof(change.value));
        insert(*change_, change.version, &change.record, sizeof(change.record));
    }
    void commit() { step(*commit_); }
    void forgetChanges() { run("DELETE FROM change"); }

private:
    struct Close {
        void operator()(sqlite3* database) const { sqlite3_close(database); }
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Close>;

    void check(bool holds) const {
        if (!holds)
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(database_.get()));
    }
    void run(const char* text) {
        check(sqlite3_exec(database_.get(), text, nullptr, nullptr, nullptr) == SQLITE_OK);
    }
    Statement prepared(const char* text) {
        sqlite3_stmt* statement = nullptr;
        const int error = sqlite3_prepare_v2(database_.get(), text, -1, &statement, nullptr);
        Statement result(statement);
        check(error == SQLITE_OK);
        return result;
    }
    void step(sqlite3_stmt& statement) {
        check(sqlite3_step(&statement) == SQLITE_DONE);
        sqlite3_reset(&statement);
    }
    void insert(sqlite3_stmt& statement, std::uint64_t key, const void* bytes, std::size_t size) {
        sqlite3_bind_int64(&statement, 1, static_cast<std::int64_t>(key));
        sqlite3_bind_blob(&statement, 2, bytes, static_cast<int>(size), SQLITE_STATIC);
        step(statement);
    }

    TestSupport::TempDir folder_;
    std::unique_ptr<sqlite3, Close> database_;
    Statement begin_;
    Statement value_;
    Statement change_;
    Statement commit_;
};

void sqlite(benchmark::State& state) {
    writesOneByOne<Sqlite>(state);
}
BENCHMARK(sqlite)->UseManualTime();

// Redis

class Redis : public Versions {
public:
    Redis()
        : server_({"/usr/bin/redis-server", "--port", "0", "--unixsocket", folder_.file("socket"),
                   "--save", "", "--appendonly", "no", "--dir", folder_.path()}) {
        const std::string socket = folder_.file("socket");
        if (!TestSupport::until([&] {
                context_.reset(redisConnectUnix(socket.c_str()));
                return context_ != nullptr && context_->err == 0;
            }))
            throw std::runtime_error("Redis does not answer: " + server_.standardError());
        for (std::uint32_t number = 0; number < kKeys; ++number) {
            write(Change(number, nextVersion()));
            commit();
        }
        forgetChanges();
    }
    void begin() {}
    /// Sent when it is committed.
    void write(const Change& change) {
        append("HSET values %b %b", &change.key, sizeof(change.key), &change.value,
               sizeof(change.value));
        append("XADD changes * record %b", &change.record, sizeof(change.record));
    }
    void commit() {
        for (; pending_ != 0; --pending_) {
            void* reply = nullptr;
            if (redisGetReply(context_.get(), &reply) != REDIS_OK)
                throw std::runtime_error(std::string("Redis: ") + context_->errstr);
            const std::unique_ptr<redisReply, Free> answer(static_cast<redisReply*>(reply));
            if (answer->type == REDIS_REPLY_ERROR)
                throw std::runtime_error(std::string("Redis: ") + answer->str);
        }
    }
    void forgetChanges() {
        append("XTRIM changes MAXLEN 0");
        commit();
    }

private:
    struct Free {
        void operator()(redisContext* context) const { redisFree(context); }
        void operator()(redisReply* reply) const { freeReplyObject(reply); }
    };

    template <class... Parts>
    void append(const char* format, Parts... parts) {
        if (redisAppendCommand(context_.get(), format, parts...) != REDIS_OK)
            throw std::runtime_error(std::string("Redis: ") + context_->errstr);
        ++pending_;
    }

    TestSupport::TempDir folder_;
    TestSupport::RealProcess server_;
    std::unique_ptr<redisContext, Free> context_;
    unsigned pending_ = 0;  ///< answers that were not read yet
};

void redis(benchmark::State& state) {
    writesOneByOne<Redis>(state);
}
BENCHMARK(redis)->UseManualTime();

void redisBy128(benchmark::State& state) {
    writesInBatches<Redis, 128>(state);
}
BENCHMARK(redisBy128)->UseManualTime();

}  // namespace
}  // namespace Bench
