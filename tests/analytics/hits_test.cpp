// A hit's way out: built, kept in the queue file, sent by the sender.
#include "analytics/hit_builder.h"
#include "analytics/hit_queue.h"
#include "analytics/hit_sender.h"
#include "analytics/hit_store.h"
#include "support/fake_transport.h"
#include "support/test_support.h"

#include <gtest/gtest.h>
#include <fcntl.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <deque>
#include <functional>
#include <memory>

namespace velmora::test {
namespace {

TEST(Builder, AddsTheStandardVariablesAndMergesTheDeviceContext) {
    const std::string head = "s1949254?AQB=1&ndh=1&aid=AID-1&ce=UTF-8&t=00%2F00%2F0000%2000%3A00%3A00%200%20300";
    const std::string device = "&c.&aDeviceName=Acme%20Phone&aOSVersion=Linux";
    const std::vector<std::tuple<StringMap, std::function<void(HitFacts&)>, std::string>> cases = {
        {{}, [](HitFacts& f) { f.offlineEnabled = true; f.visitorId = "me"; }, "&ts=1400000000&vid=me" + device},
        {{{"a.privacy.mode", "mine"}}, [](HitFacts& f) { f.privacyStatus = kPrivacyUnknown; }, device + "&aprivacymode=mine"},
        {{{"", "x"}}, [](HitFacts& f) { f.deviceContext.clear(); }, ""},  // no context left: no group
    };
    for (const auto& [context, adjust, body] : cases) {
        HitFacts facts;
        facts.deviceContext = {{"a.DeviceName", "Acme Phone"}, {"a.OSVersion", "Linux"}};
        facts.aid = "AID-1", facts.charset = "UTF-8";
        adjust(facts);
        EXPECT_EQ(HitBuilder(300).Build(context, {}, 1400000000, facts),
                  head + body + (body.empty() ? "" : "&.c") + "&AQE=1");
    }
}

// The cache busters are glibc's rand() seeded 1, 2, 3, ...; the application's own rand() goes on
// as if no hit had been built.
TEST(Builder, CacheBustersFollowSeededRandAndLeaveTheApplicationsRandAlone) {
    const int before = (std::srand(42), std::rand());
    HitBuilder builder(0);
    std::vector<std::string> hits;
    for (int i = 0; i < 3; ++i) hits.push_back(builder.Build({}, {}, 0, {}));
    const int after = std::rand();
    std::srand(42);
    EXPECT_EQ(before, std::rand());
    EXPECT_EQ(after, std::rand()) << "building hits reseeded or advanced rand()";
    for (unsigned n = 1; n <= 3; ++n) {
        std::srand(n);
        const std::uint64_t a = std::rand(), b = std::rand();
        EXPECT_EQ(hits[n - 1].substr(0, hits[n - 1].find('?')), "s" + std::to_string(((a << 32) + b) % 10'000'000));
    }
}

TEST(QueueFile, AnyValidJsonReadsLikeTheFilesThisLibraryWritesAndDamageKeepsTheEntriesBefore) {
    const std::pair<const char*, const char*> members[] = {{"\t", R"("\t")"}, {"\"", R"("\"")"}, {"\\", R"("\\")"},
                                                           {"\xFF", "\"\xEF\xBF\xBD\""}, {"s1?a= ~%20/", R"("s1?a= ~%20/")"}};
    for (const auto& [hit, text] : members) EXPECT_EQ(QueueFileMember(hit, -1), std::string(R"({"T":-1,"H":)") + text + "}");
    using Hits = std::vector<std::pair<std::int32_t, std::string>>;
    const std::string big(70000, 'x');  // longer than one read of the file
    const struct { std::string text; Hits hits; bool damaged; } cases[] = {
        {"", {}, false}, {R"({"Hits":[]})", {}, false},
        {R"({"Hits":[{"T":1,"H":"a"},{"T":-2,"H":"b"},{"T":0,"H":""}]})", {{1, "a"}, {-2, "b"}, {0, ""}}, false},
        {R"({"Hits":[{"T":1,"H":")" + big + R"("}]})", {{1, big}}, false},
        {R"({"Hits":[{"T":99999999999,"H":"a"},{"T":-99999999999,"H":"b"},{"T":1e3,"H":"c"}]})",
         {{INT32_MAX, "a"}, {INT32_MIN, "b"}, {1000, "c"}}, false},
        {R"({"Hits":[{"T":-2147483648,"H":"a"},{"T":4000000000,"H":"b"}]})", {{INT32_MIN, "a"}, {INT32_MAX, "b"}}, false},
        {R"({ "Hits" : [ {"H":"a\"b\u00e9","X":{"T":{"y":[1]}},"T":5,"Z":"z","N":7} ], "Y":[1], "V":"v" })", {{5, "a\"b\xC3\xA9"}}, false},
        {R"({"hits":[{"T":1,"H":"a"}]})", {}, true},
        {R"({"Hits":[{"T":1,"H":"a"},{"T":01,"H":"b"}]})", {{1, "a"}}, true},
        {R"({"Hits":[{"T":1,"H":"a"},{"T":2},{"H":"c"}]})", {{1, "a"}}, true},
        {R"({"Hits":[{"T":1,"H":"a"},{"T":,"H":"b"}]})", {{1, "a"}}, true},
        {R"({"Hits":[{"T":1,"H":"a"},{"T":2,"H":"b)", {{1, "a"}}, true},
        {R"({"Hits":[{"T":1,"H":"a"}]}x)", {{1, "a"}}, true},
        {R"({"Hits":[{"T":1,"H":"a"}]x)", {{1, "a"}}, true},
        {"{\"Hits\":[{\"T\":1,\"H\":\"a\"},{\"T\":2,\"H\":\"b\x01\"}]}", {{1, "a"}}, true},
    };
    TempDir dir;
    for (const auto& c : cases) {
        dir.Write(QueueFile::kFileName, c.text);
        // The JSON parser, and the queue's own reading of its layout with the parser behind it.
        for (bool own : {false, true}) {
            std::vector<QueuedHit> parsed;
            bool damaged = false;
            try {
                own ? QueueFile::ReadQueued(dir.path(), parsed) : ParseQueueFile(c.text, parsed);
            } catch (const std::exception&) { damaged = true; }
            Hits hits;
            for (const auto& hit : parsed) hits.emplace_back(hit.timestamp, hit.hit);
            EXPECT_EQ(hits, c.hits) << own << " " << c.text.substr(0, 80);
            EXPECT_EQ(damaged, c.damaged) << own << " " << c.text.substr(0, 80);
        }
    }
}

constexpr std::chrono::seconds kWait{10};
constexpr int kTransportFailure = -1, kRefusedUrl = -2;
constexpr std::int32_t kNow = 1'400'000'000;  // the manual clock's start
const std::string kBase = "http://collect.test/b/ss/rs/0/WINU-4.0.0/";

// Bytes this thread has passed to read and to write calls so far.
std::pair<long long, long long> ThreadIo() {
    std::ifstream io("/proc/thread-self/io");
    long long read = 0, written = 0, value = 0;
    for (std::string key; io >> key >> value;) (key == "rchar:" ? read : key == "wchar:" ? written : value) = value;
    return {read, written};
}

// Answers with the statuses or failures given in turn, then 200.
void Answer(FakeTransport& transport, std::deque<int> statuses) {
    auto left = std::make_shared<std::deque<int>>(std::move(statuses));
    transport.OnSend([left](const HttpRequest&) {
        const int answer = left->empty() ? 200 : left->front();
        if (!left->empty()) left->pop_front();
        if (answer == kTransportFailure) return HttpOutcome::Failed(0x80072EFF, "connection reset");
        if (answer == kRefusedUrl) return HttpOutcome::Failed(0x80072EE5, "malformed URL", true);
        return HttpOutcome::Answered(answer);
    });
}

class Delivery : public ::testing::Test {
protected:
    Delivery() : log(capture.Sink()) {
        config.rsids = "rs", config.server = "collect.test", config.privacyStatus = kPrivacyOptIn;
        host.languageTag = "en-US";
        host.internetAvailable = [this] { ++probes; return online.load(); };
    }
    std::unique_ptr<HitSender> MakeSender(Transport& through) {  // its thread stays: a shutdown must end its wait
        return std::make_unique<HitSender>(log, clock, config, host, store, through, [] { return "Agent/1"; }, [this] { ++restarts; },
                                           std::chrono::hours(1));
    }
    std::string File() const { return dir.Read(QueueFile::kFileName); }
    // The store a new process makes of the directory.
    std::unique_ptr<HitStore> Reloaded() { auto next = std::make_unique<HitStore>(log, files); next->Load(); return next; }
    std::vector<std::string> Queued() const {  // as a new process would find them
        std::vector<QueuedHit> hits;
        QueueFile::ReadQueued(dir.path(), hits);
        std::vector<std::string> names;
        for (const auto& hit : hits) names.push_back(hit.hit);
        return names;
    }
    std::vector<std::string> Take(HitStore& from) {  // the hits, oldest first, as the sender gets them
        std::vector<std::string> hits;
        for (; auto hit = from.TakeFront(); from.RemoveFront()) hits.push_back(hit->hit);
        return hits;
    }
    // Queues the hits and lets one run send what it can.
    void SendAll(const std::vector<std::pair<std::string, std::int32_t>>& hits) {
        for (const auto& [hit, timestamp] : hits) store.Append(hit, timestamp);
        sender->Start();
        ASSERT_TRUE(sender->WaitUntilResting(std::chrono::steady_clock::now() + kWait));
    }

    TempDir dir;
    LogCapture capture;
    Logger log;
    ManualClock clock;
    ConfigSettings config;
    HostOptions host;
    std::atomic<bool> online{true};
    std::atomic<int> probes{0}, restarts{0};
    FileStore files{dir.path()};
    HitStore store{log, files};
    FakeTransport transport;
    std::unique_ptr<HitSender> sender = MakeSender(transport);
};

using HitStoreTest = Delivery;
using HitSenderTest = Delivery;

// With 3,000 hits (1.5 MB) queued: an append writes its entry, a delivery the record beside the
// file, and a new process finds the count without reading the file.
TEST_F(HitStoreTest, AppendingDeliveringAndLoadingDoNotGrowWithTheQueue) {
    for (int i = 0; i < 3000; ++i) store.Announce();
    for (int i = 0; i < 3000; ++i) store.Append("s" + std::to_string(i) + std::string(500, 'x'), i);
    const std::string record = dir.Read(QueueFile::kIndexName);
    const auto before = ThreadIo();
    store.Append("s-new", 7);
    const auto appended = ThreadIo();
    EXPECT_EQ(dir.Read(QueueFile::kIndexName), record) << "an append wrote the record too";
    ASSERT_TRUE(store.TakeFront());
    store.RemoveFront();
    const auto delivered = ThreadIo();
    const auto next = Reloaded();
    const auto loaded = ThreadIo();
    // The file is 1.5 MB; a sanitizer's own writes may add some bytes.
    EXPECT_LE(appended.second - before.second, static_cast<long long>(QueueFileMember("s-new", 7).size()) + 3 + 1024);
    EXPECT_LE(delivered.second - appended.second, 1024);
    EXPECT_LE(loaded.first - delivered.first, 16 * 1024);
    EXPECT_EQ(next->Size(), 3000u);
    EXPECT_EQ(next->TakeFront()->hit, "s1" + std::string(500, 'x'));
}

// Another queue copied over the file in place, as cp does (same inode): the old record no longer fits.
TEST_F(HitStoreTest, AQueueCopiedOverTheFileInPlaceIsReadWhole) {
    for (int i = 0; i < 10; ++i) store.Append("s" + std::to_string(i), i);
    for (int i = 0; i < 3; ++i, store.RemoveFront()) ASSERT_TRUE(store.TakeFront());
    std::string copy = File();
    for (const char* name : {"\"s0\"", "\"s1\"", "\"s2\""}) copy[copy.find(name) + 1] = 't';
    dir.Write(QueueFile::kFileName, copy);
    EXPECT_EQ(Take(*Reloaded()), (std::vector<std::string>{"t0", "t1", "t2", "s3", "s4", "s5", "s6", "s7", "s8", "s9"}));
}

// A record that a power cut tore or changed gives the queue or an older place in it. One that a kill
// kept from the append after the last delivery gives that append.
TEST_F(HitStoreTest, ARecordDamagedOrBehindTheFileLosesNoHit) {
    for (const char* hit : {"s0", "s1"}) store.Append(hit, 1);
    for (int i = 0; i < 2; ++i, store.RemoveFront()) ASSERT_TRUE(store.TakeFront());
    std::string text = File();
    dir.Write(QueueFile::kFileName, text.insert(text.size() - 2, "," + QueueFileMember("s2", 2)));
    const std::string index = dir.Read(QueueFile::kIndexName);
    for (std::size_t at = 0; at < index.size(); ++at) {
        dir.Write(QueueFile::kIndexName, index.substr(0, at) + char(index[at] ^ 0x10) + index.substr(at + 1));
        const auto hits = Queued();
        EXPECT_TRUE(!hits.empty() && hits.size() <= 3 && hits.back() == "s2") << at;
    }
    dir.Write(QueueFile::kIndexName, index);
    EXPECT_EQ(Take(*Reloaded()), std::vector<std::string>{"s2"});
    dir.Write(QueueFile::kFileName, R"({"Hits":[]})");
    Reloaded();  // a record of an empty document, then an entry appended at its very start
    dir.Write(QueueFile::kFileName, R"({"Hits":[)" + QueueFileMember("s3", 3) + "]}");
    EXPECT_EQ(Take(*Reloaded()), std::vector<std::string>{"s3"});
}

TEST_F(HitStoreTest, AMoveOfTheDeliveredPrefixThatTheDiskRefusesIsGivenUpAndTheQueueGoesOnInPlace) {
    for (int i = 0; i < 2100; ++i) store.Append(std::to_string(i) + std::string(999, 'x'), i);
    std::optional<FileSizeLimit> full(std::in_place, 64 << 10);  // the new file stops at 64 KiB
    for (int i = 0; i < 1100; ++i, store.RemoveFront()) ASSERT_TRUE(store.TakeFront());
    full.reset();
    EXPECT_EQ(Take(store).size(), 1000u);
}

// A move whose copy failed, or that a clear overtook, is dropped: the queue stays as it was.
TEST_F(HitStoreTest, AMoveThatFailedOrThatAClearOvertookLeavesTheQueueAsItWas) {
    for (bool clear : {false, true}) {
        QueueFile queue(files);
        queue.Open();
        queue.Append(std::deque<std::string>(100, QueueFileMember(std::string(1000, 'x'), 1)));
        QueueFile::Compaction job;
        queue.BeginCompaction(job);
        if (clear) queue.DropAll(), queue.CopyQueued(job);
        else { FileSizeLimit full(16 << 10); queue.CopyQueued(job); }
        EXPECT_EQ(queue.FinishCompaction(job), 0u);
        EXPECT_EQ(Queued().size(), clear ? 0u : 100u);
    }
}

// Version 4.0.0 wrote this file, three states tracked offline.
TEST_F(HitStoreTest, AFileAnEarlierVersionWroteLoadsUnchangedAndTakesMoreHits) {
    std::ifstream fixture(VELMORA_TEST_DATA "/queue_file_from_05f39e4.json", std::ios::binary);
    const std::string earlier{std::istreambuf_iterator<char>(fixture), {}};
    dir.Write(QueueFile::kFileName, earlier);
    store.Load();
    EXPECT_EQ(File(), earlier);
    store.Append("s4", INT32_MAX);
    const auto hits = Queued();
    ASSERT_EQ(hits.size(), 4u);
    for (int i = 0; i < 3; ++i) EXPECT_NE(hits[i].find("&pageName=S" + std::to_string(i) + "&"), std::string::npos);
    EXPECT_EQ(hits[3], "s4");
}

// What a kill or a power cut can leave: the file cut at any byte, and an append stopped anywhere
// between its two writes. Every whole entry before the cut loads, and appending goes on.
TEST_F(HitStoreTest, AFileCutAnywhereKeepsEveryWholeEntryBeforeTheCut) {
    std::vector<std::string> names{"s0", "s1?a=\"q\"", "s2"};
    std::string text = "{\"Hits\":[", grown;
    std::vector<std::size_t> ends;
    for (std::size_t i = 0; i < names.size(); ++i) {
        text += (i > 0 ? "," : "") + QueueFileMember(names[i], 1);
        ends.push_back(text.size());
    }
    grown = text + "," + QueueFileMember("s3", 3) + "]}";
    text += "]}";
    struct State { std::string bytes; std::size_t whole; bool clean; };
    std::vector<State> states;
    for (std::size_t cut = 0; cut < text.size(); ++cut) {
        states.push_back({text.substr(0, cut), static_cast<std::size_t>(std::count_if(ends.begin(), ends.end(), [cut](std::size_t e) { return e <= cut; })), false});
    }
    for (std::size_t k = 1; k < grown.size() - text.size() + 2; ++k) states.push_back({text.substr(0, text.size() - 1) + grown.substr(text.size() - 1, k), 3, true});
    for (const auto& state : states) {
        SCOPED_TRACE(state.bytes);
        dir.Write(QueueFile::kFileName, text);
        HitStore(log, files).Load();  // the record of the whole file: appends after it start there
        capture.Clear();
        dir.Write(QueueFile::kFileName, state.bytes);
        const auto cut = Reloaded();
        EXPECT_EQ(cut->Size(), state.whole);
        EXPECT_TRUE(!state.clean || capture.Lines().empty());
        if (!state.bytes.empty()) { EXPECT_EQ(File().substr(File().size() - 2), "]}"); }  // nothing after the end
        cut->Append("s3", 3);
        std::vector<std::string> expected(names.begin(), names.begin() + state.whole);
        expected.push_back("s3");
        EXPECT_EQ(Queued(), expected);
    }
}

// Once the delivered part is the larger, and a megabyte, the rest moves to a new file. An entry
// here is 1 KiB with its comma, so the 1,024th delivery is the one that reaches the megabyte.
TEST_F(HitStoreTest, ALongDeliveredPrefixLeavesTheFileAndTheQueueGoesOnWhereItWas) {
    const std::string body = std::string(1000, 'x') + ' ';  // a space is plain text in this layout
    auto hit = [&body](int i) { return "s" + std::to_string(1000 + i) + body; };
    for (int i = 0; i < 2048; ++i) store.Append(hit(i), 1000 + i);
    for (int i = 0; i < 1100; ++i, store.RemoveFront()) {
        auto taken = store.TakeFront();
        ASSERT_TRUE(taken && taken->hit == hit(i)) << i;
        EXPECT_TRUE(i != 1024 || std::filesystem::file_size(dir / QueueFile::kFileName) < 1100u * 1024) << "not moved yet";
    }
    const auto next = Reloaded();
    EXPECT_EQ(next->Size(), 948u);
    EXPECT_EQ(next->TakeFront()->hit, hit(1100));
    EXPECT_EQ(store.TakeFront()->hit, hit(1100));
    // Without the record, the hits delivered since the move are sent again, none is lost, and the
    // file, whole in this library's layout, is read in place rather than rewritten.
    std::filesystem::remove(dir / QueueFile::kIndexName);
    std::filesystem::create_hard_link(dir / QueueFile::kFileName, dir / "as-it-was");
    const auto unindexed = Reloaded();
    EXPECT_TRUE(std::filesystem::equivalent(dir / QueueFile::kFileName, dir / "as-it-was"));
    EXPECT_EQ(unindexed->Size(), 1024u);
    EXPECT_EQ(unindexed->TakeFront()->hit, hit(1024));
}

// A daemon usually starts with its standard input closed: the queue file then gets descriptor 0,
// which must be used, and closed, like any other.
TEST_F(HitStoreTest, ADaemonWithoutStandardInputKeepsItsQueueOnDescriptorZeroAndClosesIt) {
    for (const char* hit : {"s1", "s2", "s3"}) store.Append(hit, 1);
    test::WithoutStandardInput daemon;
    ASSERT_GE(daemon.saved, 0);
    const auto before = test::OpenDescriptors();
    {
        const auto next = Reloaded();
        EXPECT_GE(::fcntl(0, F_GETFD), 0) << "descriptor 0 is not the queue file";
        EXPECT_EQ(Take(*next), (std::vector<std::string>{"s1", "s2", "s3"}));
    }
    EXPECT_EQ(test::OpenDescriptors(), before);
}

// The record vouches for the entries before the head and the last one, not for those between: one
// damaged there (a power cut, a disk error) ends the queue before it once the sender reaches it.
TEST_F(HitStoreTest, DamageMetWhileSendingEndsTheQueueBeforeIt) {
    const std::string s0 = "s0" + std::string(HitStore::kWindowBytes, 'x'), first = QueueFileMember(s0, 0);  // a read of its own
    const std::string text = "{\"Hits\":[" + first + R"(,{"T":1,"H":"s1"},{"T":2,"H":"s2"}]})";
    for (std::size_t damaged : {0u, 1u}) {
        dir.Write(QueueFile::kFileName, text);
        HitStore(log, files).Load();  // the record
        std::string bytes = text;
        bytes[bytes.find("\"s" + std::to_string(damaged))] = '\x01';
        dir.Write(QueueFile::kFileName, bytes);
        capture.Clear();
        const auto next = Reloaded();
        EXPECT_EQ(next->Size(), 3u);
        EXPECT_EQ(Take(*next), std::vector<std::string>(damaged, s0));
        EXPECT_EQ(next->Size(), 0u);
        EXPECT_EQ(capture.Lines(), std::vector<std::string>{"Velmora Error:Analytics - Unable to load queued hits (the file is "
                                                            "damaged after byte " + std::to_string(9 + damaged * (first.size() + 1)) + ")"});
        EXPECT_EQ(File(), "{\"Hits\":[" + (damaged == 1 ? first : "") + "]}");
    }
}

TEST_F(HitStoreTest, AQueueFileThatCannotBeOpenedIsReported) {
    EXPECT_TRUE(Queued().empty()) << "no file: nothing queued";
    std::filesystem::create_directory(dir / QueueFile::kFileName);
    store.Load();
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{"Velmora Error:Analytics - Unable to load queued hits (Cannot open " +
                                                        (dir / QueueFile::kFileName).string() + ": Is a directory)"});
    std::vector<QueuedHit> hits;  // opened for reading only, it fails at its first read
    EXPECT_THROW(QueueFile::ReadQueued(dir.path(), hits), std::system_error);
}

TEST_F(HitStoreTest, ADamagedFileKeepsTheWholeEntriesBeforeTheDamageAndSaysSoOnce) {
    const std::string big(65506, 'x');  // rewritten, it takes two chunks; read back, it ends one byte after the first 64 KiB read
    dir.Write(QueueFile::kFileName, R"({"Hits":[{"T":1,"H":"s1"},{"T":2,"H":")" + big + R"("},{"T":"x","H":"s3"},{"T":4}]})");
    store.Load();
    EXPECT_EQ(store.Size(), 2u);
    EXPECT_EQ(Take(store), (std::vector<std::string>{"s1", big}));
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{"Velmora Error:Analytics - Unable to load queued hits "
                                                        "(a queued hit's \"T\" is not a number)"});
}

TEST_F(HitStoreTest, AHitIsInTheFileBeforeTheSenderGetsItAndUntilItsAnswerIsKnown) {
    for (int i = 0; i < 3; ++i) store.Announce();
    store.Append("s0", 0);  // saved: the first change after a quiet spell
    store.TakeFront();
    store.RemoveFront();
    store.Append("s1?a=\"q\"", 1);  // a third change is on its way: a save may wait for it
    ASSERT_TRUE(store.TakeFront());
    EXPECT_EQ(Queued(), std::vector<std::string>{"s1?a=\"q\""});
    store.Append("s2", INT32_MIN);
    EXPECT_EQ(Queued(), (std::vector<std::string>{"s1?a=\"q\"", "s2"}));
    store.Return();  // to be tried again: first in line
    EXPECT_EQ(Take(store), (std::vector<std::string>{"s1?a=\"q\"", "s2"}));
    store.Close();  // the end of the process: all on the disk, without a line
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(Reloaded()->Size(), 0u) << "delivered, as a new process finds it";
}

TEST_F(HitStoreTest, NeitherTheHitTakenNorTheOnesReadAheadNorOneNotYetSavedComeBackAfterAClearTheDiskRefuses) {
    for (const char* hit : {"s1", "s2", "s3"}) store.Append(hit, 1);
    ASSERT_TRUE(store.TakeFront());  // s2 and s3 are read ahead with it
    for (int i = 0; i < 2; ++i) store.Announce();
    store.Append("s0", 1);  // not saved yet: the clear is on its way
    EXPECT_EQ(File().find("s0"), std::string::npos);
    std::optional<FileSizeLimit> full(std::in_place, 0);  // and the disk refuses the emptied file for now
    store.Clear();
    store.Return();
    EXPECT_FALSE(store.TakeFront());
    EXPECT_EQ(store.Size(), 0u);
    full.reset();
    store.Append("s4", 4);
    EXPECT_EQ(File(), "{\"Hits\":[" + QueueFileMember("s4", 4) + "]}");
    EXPECT_EQ(Take(store), std::vector<std::string>{"s4"});
}

TEST_F(HitSenderTest, EachAnswerIsDeliveredRetriedOrDroppedByTheRules) {
    log.SetDebugEnabled(true);
    using Outcome = HitSender::Outcome;
    const std::string line = "Velmora Debug:Analytics - ", sending = line + "Sending hit (" + kBase + "s1?ts=1)";
    const std::string recover = line + "Unable to send hit, attempting to recover", invalid = line + "Invalid hit (removed)";
    auto cooldown = [&line](int status) {
        return line + "Recoverable network error (" + std::to_string(status) + "), imposing internal cooldown (30 seconds)";
    };
    const std::string longest(HitSender::kMaxUrlBytes - kBase.size(), 'x');  // with the base, as long as a URL may be
    struct Case { int answer; bool offline; Outcome outcome; std::string lastLine, hit = "s1?ts=1"; };
    for (const Case& c : std::vector<Case>{
             {200, true, Outcome::kDelivered, sending}, {307, false, Outcome::kDelivered, sending},
             {500, true, Outcome::kRetryLater, cooldown(500)}, {408, true, Outcome::kRetryLater, cooldown(408)},
             {404, false, Outcome::kDrop, sending}, {kRefusedUrl, true, Outcome::kDrop, invalid},
             {kTransportFailure, false, Outcome::kRetryLater, recover}, {kTransportFailure, true, Outcome::kRetryLater, recover},
             {200, true, Outcome::kDelivered, line + "Sending hit (" + kBase + longest + ")", longest},
             {200, true, Outcome::kDrop, invalid, longest + "x"},  // never sent
         }) {
        config.offlineEnabled = c.offline;
        Answer(transport, {c.answer});
        EXPECT_EQ(sender->Attempt(QueuedHit{c.hit, 1}), c.outcome) << c.answer << " " << c.offline;
        EXPECT_EQ(capture.Lines().back().substr(0, 200), c.lastLine.substr(0, 200)) << c.answer << " " << c.offline;
    }
    EXPECT_EQ(store.Stats().Snapshot().dropped, 3u);
    EXPECT_EQ(transport.Requests().front().timeoutMillis, HitSender::kRequestTimeoutMillis);
}

TEST_F(HitSenderTest, WithOfflineTrackingATimestampBehindTheLastSentOneIsMovedJustAfterIt) {
    log.SetDebugEnabled(true);
    config.offlineEnabled = true;
    SendAll({{"s1?a=1&ts=100", 100}, {"s2?a=1&ts=100", 100}, {"s3?a=1&ts=99&b=&ts=99", 99}});
    EXPECT_EQ(transport.Urls(), (std::vector<std::string>{kBase + "s1?a=1&ts=100", kBase + "s2?a=1&ts=100",
                                                          kBase + "s3?a=1&ts=101&b=&ts=99"}));
    EXPECT_EQ(capture.Count("Velmora Debug:Analytics - Adjusting out of order hit timestamp(99->101)"), 1u);
}

TEST_F(HitSenderTest, WithoutOfflineTrackingAHitMoreThanFiveSecondsOldIsDroppedUnsent) {
    SendAll({{"old", kNow - 6}, {"recent", kNow - 5}});
    EXPECT_EQ(transport.Urls(), std::vector<std::string>{kBase + "recent"});
    EXPECT_EQ(File(), R"({"Hits":[]})");
    EXPECT_EQ(store.Stats().Snapshot().dropped, 1u);
}

// A status that asks for a retry and a failed connection each hold the hit through a cooldown.
TEST_F(HitSenderTest, ARetriedHitWaitsInTheFileThroughTheCooldownWhichShutdownCutsShort) {
    config.offlineEnabled = true;
    Answer(transport, {500, kTransportFailure});
    store.Append("s1", kNow);
    sender->Start();
    ASSERT_TRUE(sender->WaitUntilResting(std::chrono::steady_clock::now() + std::chrono::hours(1))) << "a cooldown is a rest";
    ASSERT_TRUE(clock.AwaitSleepers(1));
    EXPECT_EQ(File(), R"({"Hits":[{"T":1400000000,"H":"s1"}]})");
    clock.Advance(std::chrono::seconds(29));
    EXPECT_EQ(transport.Urls().size(), 1u);  // 29 seconds in, still cooling down
    ASSERT_TRUE(WaitUntil([&] { clock.Advance(std::chrono::seconds(1)); return transport.Urls().size() == 2; }));
    ASSERT_TRUE(clock.AwaitSleepers(1));
    sender->BeginShutdown();
    EXPECT_TRUE(sender->WaitUntilIdle(std::chrono::steady_clock::now() + kWait));
    EXPECT_EQ(transport.Urls().size(), 2u);
    EXPECT_EQ(store.Size(), 1u);
}

TEST_F(HitSenderTest, WithoutAConnectionNothingIsSentUntilTheOneWatchSeesItBack) {
    for (int seen = 1; seen <= 2; ++seen) {  // the first watch has ended when the second one starts
        online = false;
        SendAll({{"s1", kNow}});
        SendAll({{"s2", kNow}});  // a second run while offline starts no second watch
        EXPECT_TRUE(transport.Urls().empty());
        probes = 0;
        clock.Advance(HitSender::kConnectionCheckInterval);
        EXPECT_EQ(probes.load(), 1);
        online = true;
        clock.Advance(HitSender::kConnectionCheckInterval);
        EXPECT_TRUE(WaitUntil([&] { return restarts.load() == seen; }));
    }
}

TEST_F(HitSenderTest, AConnectionCheckThatFailsIsLoggedAndDoesNotHoldTheHitsBack) {
    host.internetAvailable = []() -> bool { throw std::runtime_error("no route table"); };
    SendAll({{"s1", kNow}});
    EXPECT_EQ(transport.Urls().size(), 1u);
    EXPECT_TRUE(capture.Contains("Velmora Error:Analytics - Unable to check the network connection (no route table), "
                                 "assuming it is up"));
}

// A hit built just before an opt-out reaches the queue after the opt-out has emptied it: it is not
// queued, and the save of the next hit does not wait for it.
TEST(HitQueueGate, AHitArrivingAfterAnOptOutIsNotQueuedAndHoldsNoSaveBack) {
    TestRuntime env(R"({"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true,"batchLimit":5}})");
    auto& hits = env.runtime->GetHitQueue();
    std::promise<void> release = Hold(hits.WorkQueue());
    EXPECT_FALSE(hits.Flush(std::chrono::milliseconds(20))) << "the start rule waits behind the held work";
    release.set_value();
    EXPECT_TRUE(hits.Flush(kWait)) << "nothing queued";
    hits.QueueHit("s1?AQB=1&ndh=1&pageName=A&AQE=1", 1);
    ASSERT_EQ(hits.SizeAfterPendingWork().get(), 1u);
    env.runtime->GetConfigSettings().privacyStatus = kPrivacyOptOut;
    hits.QueueHit("s2?AQB=1&ndh=1&pageName=B&AQE=1", 2);
    EXPECT_EQ(hits.SizeAfterPendingWork().get(), 1u);
    env.runtime->GetConfigSettings().privacyStatus = kPrivacyUnknown;
    hits.QueueHit("s3", 3);
    EXPECT_EQ(hits.SizeAfterPendingWork().get(), 2u);
    EXPECT_NE(env.local.Read(QueueFile::kFileName).find("\"s3\""), std::string::npos) << "not saved at once";
}

}  // namespace
}  // namespace velmora::test
