#pragma once

#include "core/clock.h"
#include "core/config.h"
#include "core/file_store.h"
#include "core/host.h"
#include "core/log.h"
#include "core/serial_queue.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace velmora {

class DeviceContext;
class HttpClient;

// One hit waiting to be sent, with its member of the queue file made once.
struct QueuedHit {
    std::string hit;
    std::int32_t timestamp = 0;
    std::shared_ptr<const std::string> json;  // {"T":...,"H":"..."}
    std::uint64_t sequence = 0;               // order of arrival; tells whether a save has covered it
};

// Parses the queue file's text. Hits before a malformed entry are kept in `hits` and the error is
// thrown; an empty text is an empty queue.
void ParseQueueFile(const std::string& text, std::vector<QueuedHit>& hits);
std::string QueueFileMember(const std::string& hit, std::int32_t timestamp);

// The persistent first-in-first-out queue of hits and its one sender.
//
// Changes (appends and clears) run on the queue's own work queue, which loads the file first. The
// file is rewritten as a whole but not after every change: changes that arrive in a burst share a
// save, made when no further change is waiting or at the latest every 100 ms, and every save reuses
// the member text each hit got when it was queued. A hit is written to the file before the sender
// sends it and stays there until the answer is known, so a crash can make a hit be sent twice but
// never lose one.
//
// The sender is one thread that sleeps until it is started, then sends the hits one at a time in
// order until the queue is empty, the privacy status is not opt-in or there is no connection.
// Retry cooldowns are waits on the injected clock that only the end of sending cuts short.
class HitQueue : public HitQueueControl {
public:
    static constexpr const char* kFileName = "VelmoraDataCache.json";
    static constexpr int kCooldownSeconds = 30;
    static constexpr std::int32_t kRequestTimeoutMillis = 5000;
    static constexpr std::chrono::milliseconds kSaveInterval{100};
    // How often a sender that stopped for lack of a connection looks whether it is back.
    static constexpr std::chrono::milliseconds kConnectionCheckInterval{2000};
    // Longest request URL (base URL and hit) that is queued. Common servers refuse longer request
    // lines, and a hit that can never be delivered must not hold up the ones behind it.
    static constexpr std::size_t kMaxUrlBytes = 64 * 1024;

    HitQueue(const Logger& log, Clock& clock, const ConfigSettings& config, FileStore& files, const HostOptions& host,
             HttpClient& http, DeviceContext& device, Executor& executor);
    ~HitQueue();

    // Applies the start rule after the work posted before the call, then waits until the sender is
    // idle or waiting out a cooldown (which keeps its schedule). True when no hit is left queued.
    bool Flush(std::chrono::milliseconds timeout);
    // No new send starts; a cooldown ends. The hit in flight still gets its answer.
    void BeginShutdown();
    // True when no send is in flight by `deadline`.
    bool WaitUntilIdle(std::chrono::steady_clock::time_point deadline);
    void Shutdown();

    // Appends the hit on the work queue, saves and starts the sender when the start rule allows.
    void QueueHit(std::string hit, std::int32_t timestamp);
    // HitQueueControl: both run on the work queue, after what was posted before.
    void ClearQueue() override;
    void StartSender() override;

    std::size_t Size() const;  // now
    std::size_t QueuedHits() const override { return Size(); }
    // The size once the work posted before has run; library threads ask Size() instead.
    std::future<std::size_t> SizeAfterPendingWork();

private:
    void Load();
    void Append(std::string hit, std::int32_t timestamp);
    void Clear();
    void ApplyStartRule();
    void SaveAfterChange();

    // Writes the whole queue when it changed since the last save.
    void SaveNow();
    void RequestSave();

    void SenderLoop();
    void Run();
    bool TakeFront(QueuedHit& hit, std::uint64_t& clearGeneration);
    void PutBack(QueuedHit hit, std::uint64_t clearGeneration);
    void Removed();  // the sender dropped or delivered the hit in flight
    bool Cooldown();
    void WatchForConnection();
    // The outcome of one attempt: whether to put the hit back and wait out a cooldown.
    bool Send(QueuedHit& hit);

    const Logger& log_;
    Clock& clock_;
    const ConfigSettings& config_;
    FileStore& files_;
    const HostOptions& host_;
    HttpClient& http_;
    DeviceContext& device_;

    // The queue lock: the hits and the bookkeeping of what the file holds.
    mutable std::mutex mutex_;
    std::deque<QueuedHit> hits_;
    // The hit being sent stays in the file until its answer is known, so a crash cannot lose it.
    std::shared_ptr<const std::string> inFlight_;
    std::uint64_t nextSequence_ = 1;
    std::uint64_t changes_ = 0;       // bumped by every change of `hits_`
    std::uint64_t savedChanges_ = 0;  // `changes_` as of the last save
    std::uint64_t savedThrough_ = 0;  // highest sequence the file has been given
    std::uint64_t clears_ = 0;
    std::chrono::steady_clock::time_point lastSave_{};

    std::mutex saveMutex_;  // saves are written one at a time, in snapshot order
    std::atomic<int> pendingChanges_{0};
    std::atomic<bool> savePosted_{false};

    // Sender state.
    std::mutex senderMutex_;
    std::condition_variable senderCv_;  // the sender waits here for a start
    std::condition_variable idleCv_;    // flushes wait here for the sender to finish its run
    bool runRequested_ = false;
    bool running_ = false;
    std::thread sender_;
    bool coolingDown_ = false;
    std::atomic<bool> stopping_{false};
    Waker waker_;
    std::int32_t lastSentTimestamp_ = 0;      // sender thread only
    std::optional<std::string> baseUrl_;      // sender thread only, built on first send
    std::size_t baseUrlBytes_ = 0;            // work queue only, set by Load
    std::uint64_t senderChanges_ = 0;         // sender thread only: `changes_` after its last change

    // While the sender waits for a connection: the timer that looks for it.
    struct ConnectionWatch {
        std::mutex mutex;
        HitQueue* owner = nullptr;  // null once sending has ended
        std::shared_ptr<Timer> timer;
    };
    std::shared_ptr<ConnectionWatch> watch_;

    SerialQueue work_;  // last: it is the first to stop
};

}  // namespace velmora
