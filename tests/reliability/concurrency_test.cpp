// Every public operation called from eight threads at once, lifecycle starts and pauses, privacy
// changes and queue clears mixed in, against a loopback server. Run under ThreadSanitizer by the
// test command. No call may hang (every wait is bounded), the data files must always be whole
// documents, and each thread's hits must reach the server in the order the thread made them.
// This case uses the process-wide runtime: it runs in a process of its own.
#include "child_process.h"
#include "timed_actions/timed_actions.h"

#include <velmora/Velmora.h>

#include <gtest/gtest.h>

#include <future>
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

    template <class T> void Await(std::future<T> future) {
        lateAnswers += !future.valid() || future.wait_for(kAnswerLimit) != std::future_status::ready;
    }
    ObjectMap Numbered() { return {{"thread", std::int32_t{thread}}, {"seq", sequence++}}; }
    std::string Name(const char* base) const { return base + std::to_string(thread % 3); }
};

using Operation = std::function<void(Worker&)>;

// One call of every public operation, run every round; each thread starts at another one.
const std::vector<Operation> kEveryRound = {
    [](Worker& w) { Analytics::TrackState("State", w.Numbered()); },
    [](Worker& w) { Analytics::TrackAction("Action", w.Numbered()); },
    [](Worker&) { Analytics::TrackLocation(40.7127837, -74.0059413, 12, {{"near", true}}); },
    [](Worker&) { Analytics::TrackLifetimeValueIncrease(1.5f, {{"via", "test"}}); },
    [](Worker& w) { Analytics::TrackTimedActionStart(w.Name("Timed"), {{"step", 1}}); },
    [](Worker& w) { Analytics::TrackTimedActionUpdate(w.Name("Timed"), {{"step", 2.5}}); },
    [](Worker& w) { w.Await(Analytics::TrackingTimedActionExistsAsync(w.Name("Timed"))); },
    [](Worker& w) { Analytics::TrackTimedActionEnd(w.Name("Timed")); },
    [](Worker& w) { w.Await(Analytics::GetTrackingIdentifierAsync()); },
    [](Worker& w) { w.Await(Config::GetPrivacyStatusAsync()); },
    [](Worker&) {  // the getters
        (void)Analytics::GetQueueSize(), (void)Config::GetDebugLogging(), (void)Config::GetLifetimeValue();
        (void)Config::GetUserIdentifier(), (void)Config::GetVersion(), (void)Cohorta::GetVisitorProfile();
        (void)(Vantor::GetPcId() + Vantor::GetSessionId() + Cohorta::GetDpid() + Cohorta::GetDpuuid());
    },
    [](Worker& w) { Config::SetDebugLogging(w.calls % 2 == 0); },
    [](Worker& w) { Config::SetUserIdentifier("user-" + std::to_string(w.thread)); },
    [](Worker& w) {
        auto settings = Media::SettingsWith(w.Name("Clip"), 60, "Player", "player-" + std::to_string(w.thread));
        settings->Milestones = "25,50,75";
        settings->SegmentByMilestones = true;
        settings->TrackSeconds = 1;
        Media::Open(settings);
    },
    [](Worker&) { Media::Open(Media::AdSettingsWith("Ad", 15, "Player", "Clip0", "pod", 1, "2.5")); },
    [](Worker& w) { Media::Play(w.Name("Clip"), static_cast<double>(w.calls % 60)), Media::Click(w.Name("Clip"), 10); },
    [](Worker& w) { Media::Track(w.Name("Clip"), {{"chapter", w.thread}}), Media::Stop(w.Name("Clip"), 20); },
    [](Worker& w) { Media::Complete(w.Name("Clip"), 59); },
    [](Worker& w) { Media::Close(w.thread % 2 == 0 ? w.Name("Clip") : std::string("Ad")); },
    [](Worker& w) { w.Await(Vantor::LoadRequest(Vantor::CreateRequest("home", "fallback", {{"thread", w.thread}}))); },
    [](Worker& w) { w.Await(Vantor::LoadRequest(Vantor::CreateOrderConfirmRequest("done", "o-1", "9.90", "p-1", {}))); },
    [](Worker& w) { w.Await(Cohorta::SubmitSignal({{"thread", w.thread}, {"level", 2.5}})); },
    [](Worker& w) { Cohorta::SetDpidAndDpuuid("dp", "user-" + std::to_string(w.thread)); },
    [](Worker&) { (void)Host::Flush(std::chrono::milliseconds(20)); },
    [](Worker&) { EXPECT_FALSE(Host::Configure(HostOptions{})); },  // refused: the library runs
};

// Every fourth round of a thread, so that most hits get through.
void EveryFourthRound() {
    Config::CollectLifecycleData();
    Config::PauseCollectingLifecycleData();
    for (auto status : {VelmoraPrivacyStatus::Unknown, VelmoraPrivacyStatus::OptOut, VelmoraPrivacyStatus::OptIn}) {
        Config::SetPrivacyStatus(status);
    }
    Analytics::ClearQueue();
    Vantor::ClearCookies();
}

TEST(Concurrency, EveryPublicOperationFromEightThreadsKeepsEachThreadsOrder) {
    LoopbackServer services;  // the collection, offer and audience services on one port
    services.OnGet([](const httplib::Request& request, httplib::Response& response) {
        if (request.path == "/event") {
            response.set_content(R"({"uuid":"u-1","dests":[],"stuff":[{"cn":"segment","cv":"gold"}]})", "application/json");
        } else if (request.path == "/id") {
            response.set_content(R"({"id":"0123456789ABCDEF-0123456789ABCDEF"})", "application/json");
        } else if (request.path.rfind("/m2/", 0) == 0) {
            response.set_header("Set-Cookie", "mboxPC=pc-1");
            response.set_content("<offer/>", "text/plain");
        }
    });
    TestRuntime env;
    const std::string host = services.Address();
    env.package.Write("AppxManifest.xml", R"(<?xml version="1.0"?><Package><Identity Version="1.0.0.0"/>)"
                                          R"(<Properties><DisplayName>Threads</DisplayName></Properties></Package>)");
    HostOptions options;
    options.connectTo = {"acme.tt.vantor.example:80:" + host};
    ASSERT_TRUE(env.ConfigureProcess(R"({"analytics":{"rsids":"rs","server":")" + host +
                                         R"(","offlineEnabled":true,"batchLimit":0,"poi":[["Here",40.7,-74.0,50000]]},)"
                                         R"("vantor":{"clientCode":"acme","timeout":2},"cohorta":{"server":")" + host + R"("}})",
                                     options));
    ASSERT_EQ(Analytics::GetQueueSize(), 0u);  // the library runs from here on

    // Reads both data files without pause while the threads run: each read must be a whole document.
    std::atomic<bool> running{true};
    std::atomic<int> reads{0}, tornReads{0};
    std::thread reader([&] {
        for (; running; std::this_thread::sleep_for(std::chrono::microseconds(500))) {  // leaves the cores to the library
            try {
                std::vector<QueuedHit> hits;
                QueueFile::ReadQueued(env.local.path(), hits);
                TimedActionMap actions;
                ParseTimedActionsFile(env.local.Read(TimedActionStore::kFileName), actions,
                                      [&](const std::string&, const std::string&) { ++tornReads; });
                ++reads;
            } catch (const std::exception& e) { ADD_FAILURE() << "unreadable data file: " << e.what(); }
        }
    });

    std::vector<Worker> workers;
    for (int t = 0; t < kThreads; ++t) workers.push_back(Worker{t});
    const auto deadline = std::chrono::steady_clock::now() + kRunTime;
    std::vector<std::future<void>> runs;
    for (auto& w : workers) {
        runs.push_back(std::async(std::launch::async, [&, &w = w] {
            for (int round = 0; round < kMaxRounds && std::chrono::steady_clock::now() < deadline; ++round) {
                for (std::size_t i = 0; i < kEveryRound.size(); ++i, ++w.calls) {
                    kEveryRound[(i + static_cast<std::size_t>(w.thread) * 4) % kEveryRound.size()](w);
                }
                if (round % 4 == w.thread % 4) EveryFourthRound();
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
    for (const auto& worker : workers) EXPECT_EQ(worker.lateAnswers, 0) << "asynchronous results that never came";
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(tornReads.load(), 0);

    std::map<std::string, std::int64_t> lastSeen;  // thread to its last sequence number
    for (const auto& hit : services.Hits()) {
        if (hit.context.count("thread") == 0 || hit.context.count("seq") == 0) continue;
        auto [last, first] = lastSeen.try_emplace(hit.context.at("thread"), -1);
        EXPECT_GT(std::stoll(hit.context.at("seq")), last->second) << "thread " << last->first << " out of order";
        last->second = std::stoll(hit.context.at("seq"));
    }
    EXPECT_FALSE(lastSeen.empty());
    for (const auto& line : env.log.Lines()) {
        EXPECT_EQ(line.find("Unexpected error in background work"), std::string::npos) << line;
        EXPECT_EQ(line.find("Velmora Error:"), std::string::npos) << line;
    }
    // The log capture and directories die with this scope; the library must stop writing first.
    EXPECT_TRUE(Host::Shutdown(std::chrono::seconds(30)));
}

}  // namespace
}  // namespace velmora::test
