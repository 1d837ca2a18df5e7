#include "core/device.h"
#include "support/loopback_server.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <thread>

namespace velmora {
namespace {

const std::regex kAidForm("^[0-7][0-9A-F]{15}-[0-3][0-9A-F]{15}$");
const std::string kRefused = "A connection with the server specified in the uri parameter could not be established.";

// A device context on temporary directories; the loopback server is the tracking server of "/id".
struct Device : ::testing::Test {
    Device() {
        log.SetDebugEnabled(true);
        host.packageDirectory = package.path();
        config.server = server.Address();
    }
    DeviceContext& Context() {
        if (!context) {
            context = std::make_unique<DeviceContext>(host, config, settings, http, log);
            context->SetSystemInfoDirectory(dmi.path());
        }
        return *context;
    }
    test::LoopbackServer server;  // outlives the client, so the client closes its connections first
    test::TempDir package, local, dmi;
    test::LogCapture capture;
    Logger log{capture.Sink()};
    HttpClient http{log, {}};
    HostOptions host;
    ConfigSettings config;
    SettingsStore settings{local.path(), log};
    std::unique_ptr<DeviceContext> context;
};

TEST_F(Device, UserAgentAndDeviceNameUseWhatIsKnownOfMakerAndModel) {
    const std::vector<std::string> cases[] = {  // host maker, host model, system vendor, system product, agent part, name
        {"Microsoft", "Model 930", "", "", "; Microsoft Corporation; Model 930", "Microsoft Model 930"},
        {"Microsoft Mobile", "RM-1", "", "", "; Microsoft Mobile; RM-1", "Microsoft Mobile RM-1"},
        {"Contoso", "", "", "", "; Contoso", "Contoso Unknown"}, {"", "Lumia", "", "", "; Lumia", "Unknown Lumia"},
        {"", "", "", "", "", "Unknown Unknown"},
        {"", "", "LENOVO\n", "ThinkPad X1\n", "; LENOVO; ThinkPad X1", "LENOVO ThinkPad X1"},
        {"Microsoft", "", "Dell Inc.\n", "XPS 13\n", "; Microsoft Corporation; XPS 13", "Microsoft XPS 13"}};
    for (const auto& c : cases) {
        host.deviceManufacturer = c[0];
        host.deviceModel = c[1];
        for (const char* file : {"sys_vendor", "product_name"}) std::filesystem::remove(dmi / file);
        if (!c[2].empty()) dmi.Write("sys_vendor", c[2]);
        if (!c[3].empty()) dmi.Write("product_name", c[3]);
        context.reset();
        EXPECT_EQ(Context().GetUserAgent(), "Mozilla/5.0 (Windows Phone 8.1; ARM; Trident/7.0; Touch; rv:11.0" + c[4] + ") like Gecko");
        EXPECT_EQ(Context().GetContextData()["a.DeviceName"], c[5]);
    }
}

TEST_F(Device, ApplicationComesFromTheHostOrTheManifestReadOnce) {
    const auto manifest = [](const std::string& version, const std::string& name) {
        return "<?xml version=\"1.0\"?><Package xmlns=\"http://schemas.microsoft.com/appx/2010/manifest\"><Identity Name=\"app\" "
               "Version=\"" + version + "\"/><Properties><DisplayName>" + name + "</DisplayName></Properties></Package>";
    };
    const std::vector<std::string> cases[] = {  // manifest (empty: none), host name, host version, name|version|build|id, reason of the error line
        {manifest("2.1.5.3", "Größe &amp; Co"), "", "", "Größe & Co|2.1.3|5|Größe & Co 2.1.3 (5)", ""},
        {"", "", "", "Unknown|0.0.0|0|Unknown 0.0.0 (0)", "File was not found"},
        {"<Package><Identity Version=\"3.0.1.2\"><Properties>", "", "", "Unknown|0.0.0|0|Unknown 0.0.0 (0)", "Start-end tags mismatch"},
        {"<Package><Identity Version=\"3.0.1.2\"/><Properties/></Package>", "", "", "Unknown|3.0.2|1|Unknown 3.0.2 (1)",
         "No DisplayName element found"},
        {"", "Host", "7.2.9.4", "Host|7.2.4|9|Host 7.2.4 (9)", ""},
        {manifest("2.1.5.3", "App"), "Host", "7.x.9", "Host|7.0.0|9|Host 7.0.0 (9)", ""},
        {manifest("2.1.5.3", "App"), "Host", "", "Host|2.1.3|5|Host 2.1.3 (5)", ""},
        {manifest("2.1.5.3", "App"), "", "7.2", "App|7.2.0|0|App 7.2.0 (0)", ""},
        {"", "", "7.2.9.4", "Unknown|7.2.4|9|Unknown 7.2.4 (9)", "File was not found"}};
    for (const auto& c : cases) {
        std::filesystem::remove(package / "AppxManifest.xml");
        if (!c[0].empty()) package.Write("AppxManifest.xml", c[0]);
        host.applicationName = c[1];
        host.applicationVersion = c[2];
        capture.Clear();
        context.reset();
        auto& d = Context();
        EXPECT_EQ(d.GetApplicationName() + "|" + d.GetApplicationVersion() + "|" + d.GetApplicationBuild() + "|" + d.GetApplicationId(), c[3]);
        EXPECT_EQ(d.GetContextData()["a.AppID"], d.GetApplicationId());
        const std::string error = "Velmora Error:Analytics - Unable to read AppxManifest file to obtain Application name (" + c[4] + ")";
        EXPECT_EQ(capture.Lines(), c[4].empty() ? std::vector<std::string>{} : std::vector<std::string>{error});
    }
}

TEST_F(Device, ConcurrentFirstUsesComputeEachValueOnce) {
    // No manifest, so each read of it would log one more error line; the window is first unknown, later known.
    std::atomic<int> windowCalls{0};
    host.windowSize = [&] { return ++windowCalls == 1 ? std::nullopt : std::optional(std::pair(480.0, 800.0)); };
    auto& d = Context();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {  // half take the map's lock first, half the single values' locks
        threads.emplace_back([&d, t] { t % 2 ? d.GetApplicationVersion() + d.GetApplicationId() + d.GetAid() : d.GetContextData()["a.AppID"] + d.GetAid(); });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::make_tuple(capture.Lines().size(), windowCalls.load(), server.Count()), std::make_tuple(1u, 1, 1u));
    EXPECT_EQ(d.GetContextData(), (StringMap{{"a.AppID", "Unknown 0.0.0 (0)"}, {"a.CarrierName", ""}, {"a.DeviceName", "Unknown Unknown"},
                                             {"a.OSVersion", "Windows Phone 8.1"}, {"a.Resolution", "Unknown"}}));
    host.osVersion = "Debian GNU/Linux 12";
    context.reset();
    EXPECT_EQ(Context().GetContextData()["a.OSVersion"], "Debian GNU/Linux 12");
}

TEST_F(Device, AidIsFetchedStoredAndReusedByTheNextRuntime) {
    server.OnGet([](const httplib::Request&, httplib::Response& response) {
        response.set_content("{\"id\":\"3F2504E04F8911D3-09A0300C04FF0A1B\",\"other\":1}", "application/json");
    });
    test::TestRuntime t("{\"analytics\":{\"rsids\":\"rs\",\"server\":\"" + server.Address() + "\",\"ssl\":false}}");
    EXPECT_EQ(t.runtime->Device().GetAid(), "3F2504E04F8911D3-09A0300C04FF0A1B");
    t.runtime.reset();
    EXPECT_EQ(t.Restart()->Device().GetAid(), "3F2504E04F8911D3-09A0300C04FF0A1B");
    EXPECT_EQ(server.Targets(), std::vector<std::string>{"/id"});
}

TEST_F(Device, AnUnusableAnswerGivesAGeneratedAidThatIsStored) {
    test::ClosedPort closed;
    const std::pair<std::string, std::vector<std::string>> cases[] = {  // "/id" body ("hold": too late), lines
        {"id=123", {}}, {"{\"id\":42}", {}},
        {"hold", {"Velmora Debug:Request Handler - Request timed out"}},
        {"closed", {"Velmora Debug:Request Handler - Error processing request (" + kRefused + ")",
                    "Velmora Debug:Analytics - Unable to retrieve aid from server (" + kRefused + ")"}}};
    for (const auto& [body, lines] : cases) {
        server.OnGet([&, body = body](const httplib::Request&, httplib::Response& response) {
            if (body == "hold") server.Hold();
            response.set_content(body, "application/json");
        });
        if (body == "closed") config.server = "127.0.0.1:" + std::to_string(closed.Port());
        settings.Remove(kAidKey);
        capture.Clear();
        context.reset();
        const std::string aid = Context().GetAid();
        EXPECT_TRUE(std::regex_match(aid, kAidForm)) << aid;
        EXPECT_EQ(LookupText(settings, kAidKey), aid);
        EXPECT_EQ(capture.Lines(), lines) << body;
    }
}

TEST_F(Device, GeneratedAidsFollowTheHalvesRule) {
    std::set<std::string> seen;
    std::set<char> highFirst, lowFirst;
    for (int i = 0; i < 4000; ++i) {
        const std::string aid = Context().GenerateAid();
        ASSERT_TRUE(std::regex_match(aid, kAidForm)) << aid;
        seen.insert(aid);
        highFirst.insert(aid[0]);
        lowFirst.insert(aid[17]);
    }
    EXPECT_EQ(seen.size(), 4000u);
    EXPECT_EQ(highFirst.size(), 8u) << "every digit 0 to 7 leads some high half";
    EXPECT_EQ(lowFirst.size(), 4u) << "every digit 0 to 3 leads some low half";
    // Allowed leads stay; others are replaced by an allowed one.
    EXPECT_EQ(Context().AidFromGuid("{0A1B2C3D-4E5F-6071-2293-A4B5C6D7E8F9}"), "0A1B2C3D4E5F6071-2293A4B5C6D7E8F9");
    EXPECT_TRUE(std::regex_match(Context().AidFromGuid("{f0000000-0000-0000-c000-0000000000ab}"),
                                 std::regex("^[0-7]000000000000000-[0-3]0000000000000AB$")));
}

}  // namespace
}  // namespace velmora
