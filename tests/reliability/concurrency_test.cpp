// Every public operation called from eight threads at once, lifecycle starts and pauses, privacy
// changes and queue clears mixed in, against a loopback server. Run under ThreadSanitizer by the
// test command. No call may hang (every wait is bounded), the queue file must always be a whole
// document, and each thread's hits must reach the server in the order the thread made them.
// This case uses the process-wide runtime: it runs in a process of its own.
#include "child_process.h"
#include "timed_actions/timed_actions.h"

#include <velmora/Velmora.h>

#include <gtest/gtest.h>

#include <future>
#include <iostream>
#include <map>

namespace velmora::test {
namespace {

using namespace Velmora;
using Velmora::Vantor;  // not the module of the same name

constexpr int kThreads = 8;
constexpr auto kRunTime = std::chrono::seconds(3);
constexpr int kMaxRounds = 60;
constexpr auto kAnswerLimit = std::chrono::seconds(30);  // for every asynchronous result
constexpr auto kHangLimit = std::chrono::seconds(150);   // for the threads to come back at all

struct Worker {
    int thread;
    std::int64_t sequence = 0;  // numbers the thread's states and actions
    std::int64_t calls = 0;
    std::int64_t lateAnswers = 0;
};

template <class T>
void Await(Worker& worker, std::future<T> future) {
    if (!future.valid() || future.wait_for(kAnswerLimit) != std::future_status::ready) ++worker.lateAnswers;
}

ObjectMap Numbered(Worker& worker) {
    return {{"thread", std::int32_t{worker.thread}}, {"seq", worker.sequence++}};
}

using Operation = std::function<void(Worker&)>;

// One call of every public operation. The first group runs every round; the second (privacy
// changes, clears, lifecycle) every fourth round of a thread, so that most hits get through.
std::vector<Operation> EveryRound() {
    auto name = [](const char* base, const Worker& w) { return base + std::to_string(w.thread % 3); };
    return {
        [](Worker& w) { Analytics::TrackState("State", Numbered(w)); },
        [](Worker& w) { Analytics::TrackAction("Action", Numbered(w)); },
        [](Worker&) { Analytics::TrackLocation(40.7127837, -74.0059413, 12, {{"near", true}}); },
        [](Worker&) { Analytics::TrackLifetimeValueIncrease(1.5f, {{"via", "test"}}); },
        [=](Worker& w) { Analytics::TrackTimedActionStart(name("Timed", w), {{"step", 1}}); },
        [=](Worker& w) { Analytics::TrackTimedActionUpdate(name("Timed", w), {{"step", 2.5}}); },
        [=](Worker& w) { Await(w, Analytics::TrackingTimedActionExistsAsync(name("Timed", w))); },
        [=](Worker& w) { Analytics::TrackTimedActionEnd(name("Timed", w)); },
        [](Worker& w) { Await(w, Analytics::GetTrackingIdentifierAsync()); },
        [](Worker&) { (void)Analytics::GetQueueSize(); },
        [](Worker&) { (void)Config::GetDebugLogging(); },
        [](Worker& w) { Config::SetDebugLogging(w.calls % 2 == 0); },
        [](Worker&) { (void)Config::GetLifetimeValue(); },
        [](Worker& w) { Await(w, Config::GetPrivacyStatusAsync()); },
        [](Worker&) { (void)Config::GetUserIdentifier(); },
        [](Worker& w) { Config::SetUserIdentifier("user-" + std::to_string(w.thread)); },
        [](Worker&) { (void)Config::GetVersion(); },
        [=](Worker& w) {
            auto settings = Media::SettingsWith(name("Clip", w), 60, "Player", "player-" + std::to_string(w.thread));
            settings->Milestones = "25,50,75";
            settings->SegmentByMilestones = true;
            settings->TrackSeconds = 1;
            Media::Open(settings);
        },
        [](Worker&) { Media::Open(Media::AdSettingsWith("Ad", 15, "Player", "Clip0", "pod", 1, "2.5")); },
        [=](Worker& w) { Media::Play(name("Clip", w), static_cast<double>(w.calls % 60)); },
        [=](Worker& w) { Media::Click(name("Clip", w), 10); },
        [=](Worker& w) { Media::Track(name("Clip", w), {{"chapter", w.thread}}); },
        [=](Worker& w) { Media::Stop(name("Clip", w), 20); },
        [=](Worker& w) { Media::Complete(name("Clip", w), 59); },
        [=](Worker& w) { Media::Close(w.thread % 2 == 0 ? name("Clip", w) : std::string("Ad")); },
        [](Worker& w) {
            Await(w, Vantor::LoadRequest(Vantor::CreateRequest("home", "fallback", {{"thread", w.thread}})));
        },
        [](Worker& w) {
            Await(w, Vantor::LoadRequest(Vantor::CreateOrderConfirmRequest("done", "o-1", "9.90", "p-1", {})));
        },
        [](Worker&) { (void)(Vantor::GetPcId() + Vantor::GetSessionId()); },  // the other keys are constants
        [](Worker& w) { Await(w, Cohorta::SubmitSignal({{"thread", w.thread}, {"level", 2.5}})); },
        [](Worker&) { (void)Cohorta::GetVisitorProfile(); },
        [](Worker& w) { Cohorta::SetDpidAndDpuuid("dp", "user-" + std::to_string(w.thread)); },
        [](Worker&) { (void)(Cohorta::GetDpid() + Cohorta::GetDpuuid()); },
        [](Worker&) { (void)Host::Flush(std::chrono::milliseconds(20)); },
        [](Worker&) { (void)Host::Configure(HostOptions{}); },  // refused: the library runs
    };
}

std::vector<Operation> EveryFourthRound() {
    return {
        [](Worker&) { Config::CollectLifecycleData(); },
        [](Worker&) { Config::PauseCollectingLifecycleData(); },
        [](Worker&) { Config::SetPrivacyStatus(VelmoraPrivacyStatus::Unknown); },
        [](Worker&) { Config::SetPrivacyStatus(VelmoraPrivacyStatus::OptOut); },
        [](Worker&) { Config::SetPrivacyStatus(VelmoraPrivacyStatus::OptIn); },
        [](Worker&) { Analytics::ClearQueue(); },
        [](Worker&) { Vantor::ClearCookies(); },
    };
}

// The collection, offer and audience services on one loopback port.
void AnswerAsEveryService(LoopbackServer& server) {
    server.OnGet([](const httplib::Request& request, httplib::Response& response) {
        if (request.path == "/event") {
            response.set_content(R"({"uuid":"u-1","dests":[],"stuff":[{"cn":"segment","cv":"gold"}]})",
                                 "application/json");
        } else if (request.path == "/id") {
            response.set_content(R"({"id":"0123456789ABCDEF-0123456789ABCDEF"})", "application/json");
        } else if (request.path.rfind("/m2/", 0) == 0) {
            response.set_header("Set-Cookie", "mboxPC=pc-1");
            response.set_content("<offer/>", "text/plain");
        }
    });
}

TEST(Concurrency, EveryPublicOperationFromEightThreadsKeepsEachThreadsOrder) {
    LoopbackServer services;
    AnswerAsEveryService(services);
    TempDir package, local;
    const std::string host = services.Address();
    package.Write("VelmoraConfig.json",
                  R"({"analytics":{"rsids":"rs","server":")" + host +
                      R"(","offlineEnabled":true,"batchLimit":0,"poi":[["Here",40.7,-74.0,50000]]},)"
                      R"("vantor":{"clientCode":"acme","timeout":2},"cohorta":{"server":")" +
                      host + R"("}})");
    package.Write("AppxManifest.xml", R"(<?xml version="1.0"?><Package><Identity Version="1.0.0.0"/>)"
                                      R"(<Properties><DisplayName>Threads</DisplayName></Properties></Package>)");
    // The process-wide runtime logs until the process ends, so its sink must never be destroyed.
    LogCapture& log = *new LogCapture();
    HostOptions options;
    options.packageDirectory = package.path();
    options.localDirectory = local.path();
    options.logSink = log.Sink();
    options.internetAvailable = [] { return true; };  // the server is on this machine
    options.connectTo = {"acme.tt.vantor.example:80:" + host};
    ASSERT_TRUE(Host::Configure(options));

    // Reads both data files without pause while the threads run: each read must be a whole document.
    std::atomic<bool> running{true};
    std::atomic<int> reads{0};
    std::atomic<int> tornReads{0};
    std::thread reader([&] {
        while (running) {
            try {
                std::vector<QueuedHit> hits;
                ParseQueueFile(local.Read(HitQueue::kFileName), hits);
                TimedActionMap actions;
                ParseTimedActionsFile(local.Read(TimedActionStore::kFileName), actions,
                                      [&](const std::string&, const std::string&) { ++tornReads; });
                ++reads;
                // Leaves the two cores to the library most of the time.
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            } catch (const std::exception& e) {
                ++tornReads;
                std::cerr << "unreadable data file: " << e.what() << "\n";
            }
        }
    });

    const auto everyRound = EveryRound();
    const auto everyFourth = EveryFourthRound();
    std::vector<Worker> workers;
    for (int t = 0; t < kThreads; ++t) workers.push_back(Worker{t});
    const auto deadline = std::chrono::steady_clock::now() + kRunTime;
    std::vector<std::future<void>> runs;
    for (auto& worker : workers) {
        runs.push_back(std::async(std::launch::async, [&, &w = worker] {
            for (int round = 0; round < kMaxRounds && std::chrono::steady_clock::now() < deadline; ++round) {
                // Each thread starts its pass at another operation, so different calls overlap.
                for (std::size_t i = 0; i < everyRound.size(); ++i, ++w.calls) {
                    everyRound[(i + static_cast<std::size_t>(w.thread) * 4) % everyRound.size()](w);
                }
                for (std::size_t i = 0; round % 4 == w.thread % 4 && i < everyFourth.size(); ++i, ++w.calls) {
                    everyFourth[i](w);
                }
            }
        }));
    }
    for (auto& run : runs) {
        if (run.wait_until(deadline + kHangLimit) != std::future_status::ready) {
            std::cerr << "deadlock: a thread never came back from the library\n";
            std::abort();
        }
    }
    running = false;
    reader.join();

    Config::SetPrivacyStatus(VelmoraPrivacyStatus::OptIn);
    EXPECT_TRUE(Host::Flush(std::chrono::seconds(120)));

    std::int64_t calls = 0, late = 0, numbered = 0;
    for (const auto& worker : workers) {
        calls += worker.calls;
        late += worker.lateAnswers;
        numbered += worker.sequence;
    }
    EXPECT_EQ(late, 0) << "asynchronous results that never came";
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(tornReads.load(), 0);

    std::map<std::string, std::int64_t> lastSeen;  // thread to its last sequence number
    std::int64_t ordered = 0;
    const auto hits = services.Hits();
    for (const auto& hit : hits) {
        if (hit.context.count("thread") == 0 || hit.context.count("seq") == 0) continue;
        ++ordered;
        auto [last, first] = lastSeen.try_emplace(hit.context.at("thread"), -1);
        EXPECT_GT(std::stoll(hit.context.at("seq")), last->second) << "thread " << last->first << " out of order";
        last->second = std::stoll(hit.context.at("seq"));
    }
    EXPECT_GT(ordered, 0);
    for (const auto& line : log.Lines()) {
        EXPECT_EQ(line.find("Unexpected error in background work"), std::string::npos) << line;
        EXPECT_EQ(line.find("Velmora Error:"), std::string::npos) << line;
    }
    std::cout << "[ figures  ] " << kThreads << " threads, " << calls << " public calls, " << numbered
              << " numbered states and actions, " << hits.size() << " hits received (" << ordered
              << " numbered, each thread in order), " << reads.load() << " whole reads of the data files\n";
}

}  // namespace
}  // namespace velmora::test
