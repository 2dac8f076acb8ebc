// What an entry log holds under one key, for those who ask about it more than once: it is looked up
// and verified once.
//
// Event thread only. Made and used within one operation on a key; refers to the log.
//
// What always holds:
//  1. Each question is answered, and traced, as by the log's own operation of that name.
//  2. A value that was read stands for what the log holds until the log hands out its next version:
//     without one, a value that lives does not change. REQUIRES: its unit stays mounted meanwhile.
#pragma once

#include <optional>

#include "entrylog/EntryLog.h"

namespace VornPolicyCpu {

template <class B>
class StoredValue {
public:
    using Key = typename B::Key;
    using Log = EntryLog<B>;
    using Value = typename Log::ConfigValue;

    /// Reads nothing before it is asked.
    StoredValue(const Log& log, const Key& key, Asic::UnitId unitId)
        : log_(&log), key_(key), unitId_(unitId) {}
    /// Of a walk over the log, which has just read the value.
    StoredValue(const Log& log, const Value& value, Asic::UnitId unitId)
        : log_(&log),
          key_(value.key()),
          unitId_(unitId),
          readAt_(log.tableVersion()),
          value_(value) {}

    const Key& key() const { return key_; }

    bool entryHas() {
        traceQuestion("entryHas");
        return live() != nullptr;
    }
    Asic::LogVersion entryLogVersion() {
        traceQuestion("entryLogVersion");
        const std::optional<Value>& value = read();
        return value ? value->version : Asic::LogVersion{};
    }
    /// Whether the log holds this very entry; the default entry counts as held where there is none.
    bool entryIsEq(const typename B::LogEntry& logEntry) {
        traceQuestion("entry");
        const Value* value = live();
        return logEntry.isEq(value != nullptr ? value->logEntry : typename B::LogEntry{});
    }
    /// Null when the key is absent or in deletion. Untraced.
    const Value* live() {
        const std::optional<Value>& value = read();
        return value && !value->inDeletion ? &*value : nullptr;
    }

private:
    void traceQuestion(const char* function) const {
        Traces<B>::entryLog.in(function, 8, " key: {} unitId:{}", key_, unitId_);
    }
    const std::optional<Value>& read() {
        if (readAt_ != log_->tableVersion()) {
            value_ = log_->configEntry(key_, unitId_);
            readAt_ = log_->tableVersion();
        }
        return value_;
    }

    const Log* log_;
    Key key_;
    Asic::UnitId unitId_;
    std::optional<Asic::LogVersion> readAt_;  ///< the log's version then; nothing: not read yet
    std::optional<Value> value_;
};

}  // namespace VornPolicyCpu
