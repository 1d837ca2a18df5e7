// Programs that end as applications do: by returning from main, by exit(), or by Host::Shutdown,
// while the library holds queued hits, delivers them, waits out a cooldown or waits for an answer.
// Each must end promptly, cleanly (status 0, no sanitizer report), keep on disk every hit it
// tracked, and never deliver a hit twice.
#include "child_process.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace velmora::test {
namespace {

// Generous: the end waits for nothing longer than Runtime::kExitBound, but a sanitizer build on a
// loaded machine is slow. Waiting out a request time-out (5 s) or a cooldown (30 s) fails it.
constexpr auto kEndLimit = std::chrono::milliseconds(2500);

struct Ended { std::vector<std::string> lines; std::string errors; };  // standard output, standard error

std::string Config(const std::string& server) {
    return R"({"analytics":{"rsids":"rs","server":")" + server +
           R"(","offlineEnabled":true,"batchLimit":0,"poi":[["Home",40.7,-74.0,5000]]},)"
           R"("vantor":{"clientCode":"acme","timeout":1},"cohorta":{"server":"127.0.0.1:9"}})";
}

std::vector<std::string> Names(int count) {
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back("S" + std::to_string(i));
    return names;
}

class ExitTest : public ::testing::Test {
protected:
    ExitTest() {
        package.Write("AppxManifest.xml", R"(<Package><Identity Version="1.0.0.0"/>)"
                                          R"(<Properties><DisplayName>Exit</DisplayName></Properties></Package>)");
    }

    // `server` empty: the configuration file is in place already.
    ChildProcess Start(const std::string& mode, int count, const std::string& server, bool up = true) {
        if (!server.empty()) package.Write("VelmoraConfig.json", Config(server));
        return {VELMORA_EXIT_PROGRAM, {mode, std::to_string(count), up ? "up" : "down",
                                       package.path().string(), local.path().string()}, errors / (mode + ".err")};
    }

    // Runs the program to its end, which must be clean (status 0, no sanitizer report) and come
    // within the limit after it printed "ending".
    Ended Run(const std::string& mode, int count, const std::string& server, bool up = true) {
        auto child = Start(mode, count, server, up);
        Ended ended;
        for (std::string line; ended.lines.empty() || ended.lines.back() != "ending";) {
            if (!child.ReadLine(line, std::chrono::seconds(20))) break;
            ended.lines.push_back(line);
        }
        const auto ending = std::chrono::steady_clock::now();
        EXPECT_EQ(child.Wait(std::chrono::seconds(20)), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - ending, kEndLimit);
        ended.errors = child.ErrorOutput();
        EXPECT_FALSE(ended.lines.empty() || ended.lines.back() != "ending") << ended.errors;
        for (const char* report : {"Sanitizer", "runtime error:"}) EXPECT_EQ(ended.errors.find(report), std::string::npos) << ended.errors;
        return ended;
    }

    static constexpr const char* kClosedPort = "127.0.0.1:9";
    TempDir package, local, errors;
};

struct EndCase { const char* mode; int count; };
void PrintTo(const EndCase& c, std::ostream* out) { *out << c.mode << " " << c.count; }

class OfflineEndTest : public ExitTest, public ::testing::WithParamInterface<EndCase> {};

TEST_P(OfflineEndTest, EveryTrackedHitIsInTheQueueFileAfterTheProcessEnds) {
    const auto ended = Run(GetParam().mode, GetParam().count, kClosedPort, /*up=*/false);
    EXPECT_EQ(QueuedNames(local), Names(GetParam().count));
    EXPECT_EQ(ended.errors.find("Velmora Error:"), std::string::npos) << ended.errors;
    if (std::string(GetParam().mode) == "shutdown") {
        EXPECT_EQ(ended.lines.front(), "shutdown 0");  // offline: the hits are still queued
        const std::string ignored = "Velmora Warning:Config - Call ignored: the library has been shut down";
        const auto first = ended.errors.find(ignored);
        EXPECT_TRUE(first != std::string::npos && ended.errors.find(ignored, first + 1) == std::string::npos) << ended.errors;
    }
}

INSTANTIATE_TEST_SUITE_P(Ends, OfflineEndTest,
                         ::testing::Values(EndCase{"return", 1}, EndCase{"return", 100}, EndCase{"exit", 1},
                                           EndCase{"exit", 100}, EndCase{"shutdown", 1}, EndCase{"shutdown", 100}));

// The queue survives the process: what one left is delivered by the next, each hit once.
TEST_F(ExitTest, HitsLeftByAProcessThatEndedWhileDeliveringGoOutOnceOnTheNextFlush) {
    LoopbackServer server;
    server.OnGet([](const httplib::Request&, httplib::Response& response) {
        std::this_thread::sleep_for(std::chrono::milliseconds(3));  // delivery is still going at the end
        response.status = 200;
    });
    Run("deliver", 100, server.Address());
    const std::size_t delivered = server.Hits().size();
    EXPECT_GE(delivered, 1u) << "the hit in flight gets its answer";
    EXPECT_LT(delivered, 100u) << "the end came after the delivery: nothing was tested";
    EXPECT_EQ(QueuedNames(local).size(), 100 - delivered);

    EXPECT_EQ(Run("flush", 0, "").lines.front(), "flush 1");
    std::vector<std::string> received;
    for (const auto& hit : server.Hits()) received.push_back(hit.variables.at("pageName"));
    EXPECT_EQ(received, Names(100));
    EXPECT_TRUE(QueuedNames(local).empty());
}

TEST_F(ExitTest, AnUnansweredRequestDoesNotHoldUpTheEndAndItsHitStaysQueued) {
    LoopbackServer server;
    server.OnGet([&server](const httplib::Request&, httplib::Response&) { server.Hold(); });
    Run("deliver", 3, server.Address());
    EXPECT_EQ(QueuedNames(local), Names(3));
}

TEST_F(ExitTest, ProgramsThatEndWhileWaitingOutACooldownOrForAnswersEndCleanly) {
    for (const char* mode : {"cooldown", "loaded"}) {
        SCOPED_TRACE(mode);
        Run(mode, 1, kClosedPort);
    }
}

// The end of a process that ran its exit handlers is the pause a phone gave every application before
// ending it; only an end without them is a crash at the next launch, each launch a new session.
TEST_F(ExitTest, OnlyAnEndWithoutTheExitHandlersIsReportedAsACrashAtTheNextLaunch) {
    LoopbackServer server;
    package.Write("VelmoraConfig.json", R"({"analytics":{"rsids":"rs","server":")" + server.Address() + R"(","lifecycleTimeout":0}})");
    const std::pair<const char*, int> ends[] = {
        {"return", 0}, {"abort", 128 + SIGABRT}, {"exit", 0}, {"kill", 128 + SIGKILL}, {"shutdown", 0}};
    for (const auto& [end, status] : ends) {
        SCOPED_TRACE(end);
        ChildProcess session(VELMORA_EXIT_PROGRAM, {"session", end, "up", package.path(), local.path()},
                             errors / "session.err");
        EXPECT_EQ(session.Wait(std::chrono::seconds(20)), status) << session.ErrorOutput();
        ASSERT_EQ(Run("launch", 0, "").lines.front(), "flush 1");
        std::map<std::string, std::string> launch;
        for (const auto& hit : server.Hits()) {
            if (hit.variables.count("pev2") && hit.variables.at("pev2") == "VLMINTERNAL:Lifecycle") launch = hit.context;
        }
        EXPECT_EQ(launch.count("aCrashEvent"), status != 0 ? 1u : 0u);
        EXPECT_EQ(launch.count("aPrevSessionLength"), status != 0 ? 0u : 1u);
    }
}

// A configuration file that cannot be opened yet (a pipe without a writer, as a hung file system
// would behave) holds up the library's threads, never the application's.
TEST_F(ExitTest, CallsReturnWhileTheConfigurationFileHangs) {
    LoopbackServer server;
    const auto fifo = package / "VelmoraConfig.json";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    auto child = Start("hung", 0, "");
    std::string line;
    ASSERT_TRUE(child.ReadLine(line, std::chrono::seconds(10))) << child.ErrorOutput();
    EXPECT_EQ(line.rfind("returned ", 0), 0u) << line;
    EXPECT_LT(std::stoi(line.substr(9)), 1000) << "the calls waited for the file";
    std::ofstream(fifo) << Config(server.Address());  // opens once the library reads
    ASSERT_TRUE(child.ReadLine(line, std::chrono::seconds(15))) << child.ErrorOutput();
    EXPECT_EQ(line, "flush 1");
    EXPECT_EQ(child.Wait(std::chrono::seconds(10)), 0) << child.ErrorOutput();
    std::vector<std::string> states;
    for (const auto& hit : server.Hits()) if (hit.variables.count("pe") == 0) states.push_back(hit.variables.at("pageName"));
    EXPECT_EQ(states, (std::vector<std::string>{"S0", "S1"}));
}

}  // namespace
}  // namespace velmora::test
