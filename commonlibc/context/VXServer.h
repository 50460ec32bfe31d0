// Collector-driven run state of an instance.
//
// Writer    The control thread, except where a member says otherwise.
// Readers   Any thread of the instance.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr std::int64_t kOriginalZorEpochDiff = 1388534400000;  // start of 2014 UTC, ms
inline constexpr std::size_t kWarningsSize = 1024;

struct Server_t {
    // Keyword members. Texts are copied under the process's text mutex.
    char status[64];
    std::int64_t TimeStampDiff;  // ms
    char fpVersionID[10];        // "1.0"
    std::int32_t numInstrProfile;
    char InstrTraceLevel;
    std::int32_t setthresholdTime;
    // Shared words.
    std::atomic<std::uint8_t> testRunRunning;  // dumpData discards everything while 0
    std::atomic<std::uint8_t> bciDataRunning, asDataRunning, logDataRunning;
    std::atomic<std::uint8_t> instrumentationStarted;  // set under messageMutex
    std::atomic<std::uint8_t> stopping;
    std::atomic<std::uint8_t> draining;          // checkAndStopThread: dumpData accepts while set
    std::atomic<std::uint8_t> isTenRecordDump;   // 1 while connected: with each 99 record and the 10 record
    std::atomic<std::uint8_t> tenRecordWritten;  // the 10 record of this run is out
    std::atomic<std::uint8_t> replyReceived;     // the connect reply stands; set under messageMutex
    std::atomic<std::uint8_t> isRuntimeApplied, runtimeChange, changeApplied, rehashRequested;
    std::atomic<std::uint8_t> doNotDumpMetaData;  // despite its name: asks for the replay
    std::atomic<std::uint8_t> sameTestRun, sameAppName;
    std::atomic<std::int32_t> numRunning;
    std::atomic<std::int32_t> stopWaitMinutes, stopWaiting;
    std::atomic<std::int64_t> zorEpochDiff;  // ms; the instance's epoch base
    std::atomic<std::int64_t> originalZorEpochDiff;
    std::atomic<std::uint8_t> epochDiffGiven;
    std::atomic<std::int32_t> sessionCounter;
    // Flowpath numbers; the masks are written by a keyword, read without a lock.
    std::atomic<std::int64_t> flowPathInstanceInitialID, timeStampMask, seqNoDigits, seqNumMask;
    std::atomic<std::uint32_t> flowpathCounter;
    // Control thread only.
    std::uint8_t fileUpdatedAtRuntime, noInstrProfile, sameFlag;
    std::int32_t askedProfileCount;
    std::uint8_t isModifiedInstrProf;  // a modify has brought a profile
    char* instrProfFileData;           // heap: content of all profiles of the line; null: none
    std::int64_t instrProfBytesWritten;
    char warnings[kWarningsSize];  // second line of the start reply
    std::int64_t lastSweepTimeMs;  // decode lock: last age sweep by a reset message, steady ms
};

}  // namespace vx
