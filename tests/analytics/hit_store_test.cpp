#include "analytics/hit_store.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

namespace velmora::test {
namespace {

// The local folder, counting the saves of the queue file.
class CountingFiles : public FileStore {
public:
    using FileStore::FileStore;
    void WriteAtomic(const std::string& name, std::string_view text) override {
        ++saves;
        FileStore::WriteAtomic(name, text);
    }
    std::atomic<int> saves{0};
};

class HitStoreTest : public ::testing::Test {
protected:
    HitStoreTest() : log(capture.Sink()) {}
    std::string File() const { return dir.Read(HitStore::kFileName); }
    std::vector<std::string> Take(HitStore& from) {  // the hits, oldest first, as the sender gets them
        std::vector<std::string> hits;
        while (auto hit = from.TakeFront()) {
            hits.push_back(hit->hit);
            from.RemoveFront();
        }
        return hits;
    }

    TempDir dir;
    LogCapture capture;
    Logger log;
    CountingFiles files{dir.path()};
    HitStore store{log, files};
};

TEST_F(HitStoreTest, FiveHundredAppendsAnnouncedAheadAreWrittenInAtMostFiveSaves) {
    for (int i = 0; i < 500; ++i) store.Announce();
    for (int i = 0; i < 500; ++i) store.Append("s" + std::to_string(i), i);
    EXPECT_LE(files.saves.load(), 5);
    HitStore next(log, files);
    next.Load();
    EXPECT_EQ(next.Size(), 500u);
}

TEST_F(HitStoreTest, TheFileHoldsTheHitsOldestFirstAndTheNextProcessGetsThemInThatOrder) {
    store.Append("s1?a=\"q\"", 7);
    store.Append("s2", -1);
    EXPECT_EQ(File(), R"({"Hits":[{"T":7,"H":"s1?a=\"q\""},{"T":-1,"H":"s2"}]})");
    HitStore next(log, files);
    next.Load();
    EXPECT_EQ(Take(next), (std::vector<std::string>{"s1?a=\"q\"", "s2"}));
}

TEST_F(HitStoreTest, ADamagedFileKeepsTheWholeEntriesBeforeTheDamageAndSaysSoOnce) {
    dir.Write(HitStore::kFileName, R"({"Hits":[{"T":1,"H":"s1"},{"T":2,"H":"s2"},{"T":"x","H":"s3"},{"T":4}]})");
    store.Load();
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{"Velmora Error:Analytics - Unable to load queued hits "
                                                        "(a queued hit's \"T\" is not a number)"});
    EXPECT_EQ(Take(store), (std::vector<std::string>{"s1", "s2"}));
}

TEST_F(HitStoreTest, AHitIsInTheFileBeforeTheSenderGetsItAndUntilItsAnswerIsKnown) {
    for (int i = 0; i < 3; ++i) store.Announce();
    store.Append("s0", 0);  // saved: the first change after a quiet spell
    store.Append("s1", 1);  // a third change is on its way: a save may wait for it
    store.TakeFront();
    store.RemoveFront();
    auto taken = store.TakeFront();
    ASSERT_TRUE(taken);
    EXPECT_EQ(File(), R"({"Hits":[{"T":1,"H":"s1"}]})");
    store.Append("s2", 2);
    EXPECT_EQ(File(), R"({"Hits":[{"T":1,"H":"s1"},{"T":2,"H":"s2"}]})");
    store.Return(std::move(*taken));  // to be tried again: first in line
    EXPECT_EQ(Take(store), (std::vector<std::string>{"s1", "s2"}));
}

TEST_F(HitStoreTest, AHitTakenWhenTheQueueIsClearedDoesNotComeBack) {
    store.Append("s1", 1);
    auto taken = store.TakeFront();
    ASSERT_TRUE(taken);
    store.Clear();
    store.Return(std::move(*taken));
    EXPECT_EQ(File(), R"({"Hits":[]})");
}

}  // namespace
}  // namespace velmora::test
