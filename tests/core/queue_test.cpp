#include "core/clock.h"
#include "core/serial_queue.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <thread>

namespace velmora {
namespace {

using test::LogCapture;

TEST(SerialQueue, KeepsEachThreadsOrderAndRunsOneAtATime) {
    Logger log;
    constexpr int kThreads = 4, kPerThread = 500;
    std::vector<std::pair<int, int>> seen;  // touched only on the queue's thread
    std::atomic<int> running{0};
    bool overlapped = false;
    {
        SerialQueue queue("Test", log);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < kPerThread; ++i) {
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
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kPerThread));
    EXPECT_FALSE(overlapped);
    std::vector<int> next(kThreads, 0);
    for (auto [t, i] : seen) EXPECT_EQ(i, next[t]++) << "thread " << t;
}

TEST(SerialQueue, AThrowingClosureIsLoggedAndTheQueueGoesOn) {
    LogCapture capture;
    Logger log(capture.Sink());
    SerialQueue queue("Media", log);
    queue.Post([] { throw std::invalid_argument("invalid stoi argument"); });
    auto after = queue.Submit([] { return 42; });
    EXPECT_EQ(after.get(), 42);
    auto failed = queue.Submit([]() -> int { throw std::out_of_range("stoi argument out of range"); });
    EXPECT_EQ(failed.get(), 0);
    EXPECT_EQ(capture.Lines(), (std::vector<std::string>{
                                   "Velmora Error:Media - Unexpected error in background work (invalid stoi argument)",
                                   "Velmora Error:Media - Unexpected error in background work (stoi argument out of range)"}));
}

TEST(SerialQueue, PostsAfterShutdownAreDroppedAndFuturesStillComplete) {
    LogCapture capture;
    Logger log(capture.Sink());
    SerialQueue queue("Analytics", log);
    queue.Shutdown();
    auto result = queue.Submit([] { return 5; });
    ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(result.get(), 0);
    EXPECT_TRUE(capture.Contains("Velmora Error:Analytics - Work posted after shutdown was dropped"));
}

TEST(SerialQueue, DrainWaitsForEarlierWorkOnly) {
    Logger log;
    SerialQueue queue("Test", log);
    std::promise<void> release;
    auto gate = release.get_future().share();
    queue.Post([gate] { gate.wait(); });
    EXPECT_FALSE(queue.Drain(std::chrono::milliseconds(20)));
    release.set_value();
    EXPECT_TRUE(queue.Drain(std::chrono::seconds(10)));
}

TEST(ManualClock, SleepEndsWhenTimeIsAdvancedOrTheWakerFires) {
    ManualClock clock;
    Waker waker;
    std::atomic<int> result{-1};
    std::thread sleeper([&] { result = clock.SleepFor(std::chrono::seconds(30), waker) ? 1 : 0; });
    ASSERT_TRUE(clock.AwaitSleepers(1));
    clock.Advance(std::chrono::seconds(29));
    EXPECT_EQ(result.load(), -1);
    clock.Advance(std::chrono::seconds(1));
    sleeper.join();
    EXPECT_EQ(result.load(), 1);

    std::thread interrupted([&] { result = clock.SleepFor(std::chrono::seconds(30), waker) ? 1 : 0; });
    ASSERT_TRUE(clock.AwaitSleepers(1));
    waker.Wake();
    interrupted.join();
    EXPECT_EQ(result.load(), 0);
}

TEST(ManualClock, TimersFireInTimeOrderUntilCancelled) {
    ManualClock clock(0);
    std::vector<std::string> fired;
    auto a = clock.Every(std::chrono::milliseconds(1000), [&] { fired.push_back("a@" + std::to_string(clock.NowMillis())); });
    auto b = clock.Every(std::chrono::milliseconds(1500), [&] { fired.push_back("b@" + std::to_string(clock.NowMillis())); });
    clock.Advance(std::chrono::milliseconds(3000));
    EXPECT_EQ(fired, (std::vector<std::string>{"a@1000", "b@1500", "a@2000", "a@3000", "b@3000"}));
    a->Cancel();
    fired.clear();
    clock.Advance(std::chrono::milliseconds(1500));
    EXPECT_EQ(fired, (std::vector<std::string>{"b@4500"}));
    EXPECT_EQ(clock.NowMillis(), 4500);
}

TEST(SystemClock, TimerTicksUntilCancelled) {
    std::atomic<int> ticks{0};
    {
        SystemClock clock;
        auto timer = clock.Every(std::chrono::milliseconds(5), [&] { ++ticks; });
        ASSERT_TRUE(test::WaitUntil([&] { return ticks.load() >= 3; }));
        timer->Cancel();
    }  // destroying the clock joins its timer thread
    const int after = ticks.load();
    EXPECT_GE(after, 3);
}

}  // namespace
}  // namespace velmora
