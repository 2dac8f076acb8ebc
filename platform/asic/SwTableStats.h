// Counters of one software table. Event thread only.
#pragma once

#include <cstdint>

#include "platform/asic/StageTimes.h"
#include "platform/brumo/Ptr.h"

namespace Asic {

class SwTableStats final : public Brumo::RefCounted {
public:
    std::uint64_t entryWriteCnt() const { return entryWriteCnt_; }
    std::uint64_t entryRemoveCnt() const { return entryRemoveCnt_; }
    std::uint64_t commitCnt() const { return commitCnt_; }
    std::uint64_t resolveFailCnt() const { return resolveFailCnt_; }
    std::uint64_t suppressedWriteCnt() const { return suppressedWriteCnt_; }
    std::uint64_t suppressCheckDiffCnt() const { return suppressCheckDiffCnt_; }
    std::uint64_t updateCnt() const { return updateCnt_; }
    std::uint64_t updateWithFailedResourceCnt() const { return updateWithFailedResourceCnt_; }
    std::uint64_t tableClearCnt() const { return tableClearCnt_; }
    /// UTC, seconds since the epoch; 0 before the first commit.
    double lastCommitTime() const { return lastCommitTime_; }

    /// From staged to committed, and from committed to acknowledged; of changes that came so far.
    StageTimes& stagedTimes() { return stagedTimes_; }
    const StageTimes& stagedTimes() const { return stagedTimes_; }
    StageTimes& hardwareTimes() { return hardwareTimes_; }
    const StageTimes& hardwareTimes() const { return hardwareTimes_; }

    void entryWriteCntInc(std::uint64_t n) { entryWriteCnt_ += n; }
    void entryRemoveCntInc(std::uint64_t n) { entryRemoveCnt_ += n; }
    void commitCntInc(std::uint64_t n) { commitCnt_ += n; }
    void resolveFailCntInc(std::uint64_t n) { resolveFailCnt_ += n; }
    void suppressedWriteCntInc(std::uint64_t n) { suppressedWriteCnt_ += n; }
    void suppressCheckDiffCntInc(std::uint64_t n) { suppressCheckDiffCnt_ += n; }
    void updateCntInc(std::uint64_t n) { updateCnt_ += n; }
    void updateWithFailedResourceCntInc(std::uint64_t n) { updateWithFailedResourceCnt_ += n; }
    void tableClearCntInc(std::uint64_t n) { tableClearCnt_ += n; }
    void lastCommitTimeIs(double seconds) { lastCommitTime_ = seconds; }

private:
    std::uint64_t entryWriteCnt_ = 0;
    std::uint64_t entryRemoveCnt_ = 0;
    std::uint64_t commitCnt_ = 0;
    std::uint64_t resolveFailCnt_ = 0;
    std::uint64_t suppressedWriteCnt_ = 0;
    std::uint64_t suppressCheckDiffCnt_ = 0;
    std::uint64_t updateCnt_ = 0;
    std::uint64_t updateWithFailedResourceCnt_ = 0;
    std::uint64_t tableClearCnt_ = 0;
    double lastCommitTime_ = 0;
    StageTimes stagedTimes_;
    StageTimes hardwareTimes_;
};

}  // namespace Asic
