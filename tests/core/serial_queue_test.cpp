#include "core/serial_queue.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace velmora {
namespace {

TEST(SerialQueue, RunsOneClosureAtATimeInEachPostersOrder) {
    Logger log;
    Executor executor;
    std::vector<std::pair<int, int>> seen;  // touched only by the queue's closures
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    {
        SerialQueue queue("Test", log, executor);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 500; ++i) {
                    queue.Post([&, t, i] {
                        if (running.fetch_add(1) != 0) overlapped = true;
                        seen.emplace_back(t, i);
                        running.fetch_sub(1);
                    });
                }
            });
        }
        for (auto& thread : threads) thread.join();
    }  // shutdown runs everything that was posted
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(seen.size(), 2000u);
    std::vector<int> next(4, 0);
    for (auto [t, i] : seen) EXPECT_EQ(i, next[t]++) << "thread " << t;
}

TEST(SerialQueue, LogsThrowingClosuresAndDropsLatePosts) {
    test::LogCapture capture;
    Logger log(capture.Sink());
    Executor executor;
    SerialQueue queue("Media", log, executor);
    queue.Post([] { throw std::invalid_argument("invalid stoi argument"); });
    EXPECT_EQ(queue.Submit([]() -> int { throw std::out_of_range("out of range"); }).get(), 0);
    EXPECT_EQ(queue.Submit([] { return 42; }).get(), 42);
    EXPECT_FALSE(queue.Submit([&] { return queue.Drain(std::chrono::seconds(1)); }).get()) << "it cannot wait for itself";
    queue.Shutdown();
    EXPECT_EQ(queue.Submit([] { return 5; }).get(), 0);
    EXPECT_EQ(capture.Lines(), (std::vector<std::string>{
                                   "Velmora Error:Media - Unexpected error in background work (invalid stoi argument)",
                                   "Velmora Error:Media - Unexpected error in background work (out of range)",
                                   "Velmora Error:Media - Work posted after shutdown was dropped"}));
}

// Queues that wait on a slow server or on each other must not hold up the rest: a queue with work
// gets a worker even while every kept worker is busy.
TEST(Executor, StartsAnotherWorkerWhileTheKeptOnesAreBusy) {
    Logger log;
    Executor executor;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::vector<std::unique_ptr<SerialQueue>> blocked;
    for (std::size_t i = 0; i < Executor::kKeptWorkers; ++i) {
        blocked.push_back(std::make_unique<SerialQueue>("Blocked", log, executor));
        blocked.back()->Post([released] { released.wait(); });
    }
    SerialQueue free("Free", log, executor);
    auto ran = free.Submit([] { return true; });
    const bool ranWhileBlocked = ran.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    release.set_value();
    EXPECT_TRUE(ranWhileBlocked);
    EXPECT_GT(executor.Workers(), Executor::kKeptWorkers);
}

}  // namespace
}  // namespace velmora
