#include "support/loopback_server.h"
#include "support/test_support.h"

#include <velmora/Velmora.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <map>

namespace {

// The names of this process's threads that the library started, with their counts.
std::map<std::string, int> LibraryThreads() {
    std::map<std::string, int> names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name.rfind("velmora-", 0) == 0) ++names[name];
    }
    return names;
}

// Every kind of work runs once (hits delivered, a media monitor on the timer, an offer and an
// audience request, lifecycle); once the process is idle, the library holds its two workers: the
// sender and the timer thread leave when they have nothing to do.
TEST(Runtime, AnIdleProcessHoldsAtMostTwoNamedLibraryThreads) {
    velmora::test::LoopbackServer server;
    velmora::test::TestRuntime t;
    Velmora::HostOptions options;
    options.connectTo = {"acme.tt.vantor.example:80:" + server.Address()};
    ASSERT_TRUE(t.ConfigureProcess(R"({"analytics":{"rsids":"rs","server":")" + server.Address() +
                                       R"(","privacyDefault":"optedin"},"cohorta":{"server":")" + server.Address() +
                                       R"("},"vantor":{"clientCode":"acme","timeout":2}})", options));

    Velmora::Config::CollectLifecycleData();
    for (int i = 0; i < 20; ++i) Velmora::Analytics::TrackState("Home");
    Velmora::Media::Open(Velmora::Media::SettingsWith("Clip", 60, "Player", "p1"));
    Velmora::Media::Play("Clip", 0);
    (void)Velmora::Vantor::LoadRequest(Velmora::Vantor::CreateRequest("home", "fallback", {})).get();
    (void)Velmora::Cohorta::SubmitSignal({{"k", std::string("v")}}).get();
    Velmora::Media::Close("Clip");
    ASSERT_TRUE(Velmora::Host::Flush(std::chrono::seconds(30)));
    ASSERT_GE(server.Hits().size(), 20u);

    const std::map<std::string, int> expected{{"velmora-work", 2}};
    std::map<std::string, int> names;
    EXPECT_TRUE(velmora::test::WaitUntil([&] { return (names = LibraryThreads()) == expected; }))
        << ::testing::PrintToString(names);
    // The log capture and directories die with this scope; retired, the library stops writing first.
    velmora::Runtime::RetireProcess();
    EXPECT_TRUE(velmora::test::WaitUntil([&] { return (names = LibraryThreads()).empty(); }, std::chrono::seconds(30)))
        << ::testing::PrintToString(names);  // the timer thread goes a moment after its last timer
}

// A copy of "VelmoraSettings.db" alone, taken after the end, has what was written.
TEST(Runtime, AtTheEndTheSettingsDatabaseFileAloneHoldsTheValues) {
    velmora::test::TestRuntime t;
    t.runtime->GetSettingsStore().Insert("key", std::string("value"));
    std::promise<void> release = velmora::test::Hold(t.runtime->GeneralQueue());  // a running call holds a flush back
    EXPECT_FALSE(t.runtime->Flush(std::chrono::milliseconds(50)));
    release.set_value();
    t.runtime->Shutdown(std::chrono::seconds(10), false);
    velmora::test::TempDir copy;
    std::filesystem::copy_file(t.local / velmora::SettingsStore::kFileName, copy / velmora::SettingsStore::kFileName);
    velmora::SettingsStore settings(copy.path(), velmora::Logger());
    EXPECT_EQ(velmora::LookupText(settings, "key"), "value");
}

}  // namespace
