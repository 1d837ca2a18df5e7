// Programs that end as applications do: by returning from main, by exit(), or by Host::Shutdown,
// while the library holds queued hits, delivers them, waits out a cooldown or waits for an answer.
// Each must end promptly, cleanly (status 0, no sanitizer report), keep on disk every hit it
// tracked, and never deliver a hit twice.
#include "child_process.h"
#include "support/fault_server.h"

#include <gtest/gtest.h>

#include <sys/stat.h>


namespace velmora::test {
namespace {

// Generous: the end waits for nothing longer than Runtime::kExitBound, but a sanitizer build on a
// loaded machine is slow. Waiting out a request time-out (5 s) or a cooldown (30 s) fails it.
constexpr auto kEndLimit = std::chrono::milliseconds(2500);

struct Ended {
    int status = -1;
    std::vector<std::string> lines;
    std::string errors;
    std::chrono::milliseconds endTime{-1};  // from "ending" to the end of the process
};

std::string Config(const std::string& server) {
    return R"({"analytics":{"rsids":"rs","server":")" + server +
           R"(","offlineEnabled":true,"batchLimit":0,"poi":[["Home",40.7,-74.0,5000]]},)"
           R"("vantor":{"clientCode":"acme","timeout":1},"cohorta":{"server":"127.0.0.1:9"}})";
}

class ExitTest : public ::testing::Test {
protected:
    ExitTest() {
        package.Write("AppxManifest.xml", R"(<Package><Identity Version="1.0.0.0"/>)"
                                          R"(<Properties><DisplayName>Exit</DisplayName></Properties></Package>)");
    }

    Ended Run(const std::string& mode, int count, bool up) {
        ChildProcess child(VELMORA_EXIT_PROGRAM, {mode, std::to_string(count), up ? "up" : "down",
                                                  package.path().string(), local.path().string()},
                           errors / (mode + ".err"));
        Ended ended;
        for (std::string line; ended.lines.empty() || ended.lines.back() != "ending";) {
            if (!child.ReadLine(line, std::chrono::seconds(20))) break;
            ended.lines.push_back(line);
        }
        const auto ending = std::chrono::steady_clock::now();
        ended.status = child.Wait(std::chrono::seconds(20));
        if (!ended.lines.empty() && ended.lines.back() == "ending") {
            ended.endTime = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - ending);
        }
        ended.errors = child.ErrorOutput();
        return ended;
    }

    // Ended with status 0, without a sanitizer report or an error line, within the limit.
    static void ExpectCleanEnd(const Ended& ended) {
        EXPECT_EQ(ended.status, 0) << ended.errors;
        EXPECT_EQ(ended.errors.find("Sanitizer"), std::string::npos) << ended.errors;
        EXPECT_EQ(ended.errors.find("runtime error:"), std::string::npos) << ended.errors;
        EXPECT_GE(ended.endTime.count(), 0);
        EXPECT_LT(ended.endTime, kEndLimit);
        RecordProperty("end_ms", static_cast<int>(ended.endTime.count()));
    }

    static std::vector<std::string> Names(int count) {
        std::vector<std::string> names;
        for (int i = 0; i < count; ++i) names.push_back("S" + std::to_string(i));
        return names;
    }

    TempDir package, local, errors;
};

struct EndCase {
    const char* mode;
    int count;
};
void PrintTo(const EndCase& c, std::ostream* out) { *out << c.mode << " " << c.count; }

class OfflineEndTest : public ExitTest, public ::testing::WithParamInterface<EndCase> {};

TEST_P(OfflineEndTest, EveryTrackedHitIsInTheQueueFileAfterTheProcessEnds) {
    package.Write("VelmoraConfig.json", Config("127.0.0.1:9"));
    const auto ended = Run(GetParam().mode, GetParam().count, /*up=*/false);
    ExpectCleanEnd(ended);
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

TEST_F(ExitTest, HitsLeftByAProcessThatEndedWhileDeliveringGoOutOnceOnTheNextFlush) {
    LoopbackServer server;
    server.OnGet([](const httplib::Request&, httplib::Response& response) {
        std::this_thread::sleep_for(std::chrono::milliseconds(3));  // delivery is still going at the end
        response.status = 200;
    });
    package.Write("VelmoraConfig.json", Config(server.Address()));
    ExpectCleanEnd(Run("deliver", 100, /*up=*/true));
    const std::size_t delivered = server.Hits().size();
    EXPECT_GE(delivered, 1u) << "the hit in flight gets its answer";
    EXPECT_LT(delivered, 100u) << "the end came after the delivery: nothing was tested";
    EXPECT_EQ(QueuedNames(local).size(), 100 - delivered);

    const auto flushed = Run("flush", 0, /*up=*/true);
    ExpectCleanEnd(flushed);
    EXPECT_EQ(flushed.lines.front(), "flush 1");
    std::vector<std::string> received;
    for (const auto& hit : server.Hits()) received.push_back(hit.variables.at("pageName"));
    EXPECT_EQ(received, Names(100));
    EXPECT_TRUE(QueuedNames(local).empty());
}

TEST_F(ExitTest, ShutdownDeliversWhatItCanAndReportsTheQueueEmpty) {
    LoopbackServer server;
    package.Write("VelmoraConfig.json", Config(server.Address()));
    const auto ended = Run("shutdown", 20, /*up=*/true);
    ExpectCleanEnd(ended);
    EXPECT_EQ(ended.lines.front(), "shutdown 1");
    EXPECT_EQ(server.Hits().size(), 20u);
    EXPECT_TRUE(QueuedNames(local).empty());
}

TEST_F(ExitTest, AnUnansweredRequestDoesNotHoldUpTheEndAndItsHitStaysQueued) {
    FaultServer server({FaultServer::Kind::kSilence});
    package.Write("VelmoraConfig.json", Config(server.Address()));
    ExpectCleanEnd(Run("inflight", 3, /*up=*/true));
    EXPECT_EQ(QueuedNames(local), Names(3));
}

TEST_F(ExitTest, BusyProgramsEndCleanly) {
    package.Write("VelmoraConfig.json", Config("127.0.0.1:9"));
    for (const char* mode : {"cooldown", "loaded"}) {
        SCOPED_TRACE(mode);
        ExpectCleanEnd(Run(mode, 1, /*up=*/true));
    }
}

// A configuration file that cannot be opened yet (a pipe without a writer, as a hung file system
// would behave) holds up the library's threads, never the application's.
TEST_F(ExitTest, CallsReturnWhileTheConfigurationFileHangs) {
    LoopbackServer server;
    const auto fifo = package / "VelmoraConfig.json";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::thread writer;
    ChildProcess child(VELMORA_EXIT_PROGRAM, {"hung", "0", "up", package.path().string(), local.path().string()},
                       errors / "hung.err");
    std::string line;
    ASSERT_TRUE(child.ReadLine(line, std::chrono::seconds(10))) << child.ErrorOutput();
    EXPECT_EQ(line.rfind("returned ", 0), 0u) << line;
    EXPECT_LT(std::stoi(line.substr(9)), 1000) << "the calls waited for the file";
    std::ofstream(fifo) << Config(server.Address());  // opens once the library reads
    ASSERT_TRUE(child.ReadLine(line, std::chrono::seconds(15))) << child.ErrorOutput();
    EXPECT_EQ(line, "flush 1");
    EXPECT_EQ(child.Wait(std::chrono::seconds(10)), 0) << child.ErrorOutput();
    std::vector<std::string> states;
    for (const auto& hit : server.Hits()) {
        if (hit.variables.count("pe") == 0) states.push_back(hit.variables.at("pageName"));
    }
    EXPECT_EQ(states, (std::vector<std::string>{"S0", "S1"}));
}

}  // namespace
}  // namespace velmora::test
