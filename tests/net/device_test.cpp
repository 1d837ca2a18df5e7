#include "core/device.h"
#include "loopback.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <set>
#include <thread>

namespace velmora {
namespace {

using test::LogCapture;
using test::LoopbackServer;
using test::TempDir;

constexpr const char* kAgentBase = "Mozilla/5.0 (Windows Phone 8.1; ARM; Trident/7.0; Touch; rv:11.0";
constexpr const char* kManifestError =
    "Velmora Error:Analytics - Unable to read AppxManifest file to obtain Application name (";

std::string Manifest(const std::string& version, const std::string& name) {
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
           "<Package xmlns=\"http://schemas.microsoft.com/appx/2010/manifest\">\n"
           "  <Identity Name=\"app\" Publisher=\"CN=x\" Version=\"" + version + "\" />\n"
           "  <Properties><DisplayName>" + name + "</DisplayName><PublisherDisplayName>P</PublisherDisplayName>"
           "</Properties>\n"
           "</Package>\n";
}

// A device context on temporary directories, with a loopback tracking server for "/id".
struct Device {
    Device() {
        log.SetDebugEnabled(true);
        host.packageDirectory = package.path();
        host.localDirectory = local.path();
        config.server = "127.0.0.1:" + std::to_string(server.Port());
        std::filesystem::create_directories(dmi.path());
    }
    DeviceContext& Context() {
        if (!context) {
            context = std::make_unique<DeviceContext>(host, config, settings, http, log);
            context->SetSystemInfoDirectory(dmi.path());
        }
        return *context;
    }
    std::vector<std::string> ErrorLines() const {
        std::vector<std::string> errors;
        for (const auto& line : capture.Lines()) {
            if (line.rfind("Velmora Error:", 0) == 0) errors.push_back(line);
        }
        return errors;
    }

    LoopbackServer server;
    TempDir package, local, dmi;
    LogCapture capture;
    Logger log{capture.Sink()};
    HostOptions host;
    ConfigSettings config;
    SettingsStore settings{local.path(), log};
    HttpClient http{log, {}};
    std::unique_ptr<DeviceContext> context;
};

struct DeviceCase {
    const char* name;
    std::string manufacturer, model;  // host overrides
    std::string vendorFile, productFile;  // system files; empty: absent
    std::string agentTail;
    std::string deviceName;
};

void PrintTo(const DeviceCase& c, std::ostream* os) { *os << c.name; }

class DeviceIdentity : public ::testing::TestWithParam<DeviceCase> {};

TEST_P(DeviceIdentity, UserAgentAndDeviceName) {
    const auto& c = GetParam();
    Device d;
    d.host.deviceManufacturer = c.manufacturer;
    d.host.deviceModel = c.model;
    if (!c.vendorFile.empty()) d.dmi.Write("sys_vendor", c.vendorFile);
    if (!c.productFile.empty()) d.dmi.Write("product_name", c.productFile);
    EXPECT_EQ(d.Context().GetUserAgent(), kAgentBase + c.agentTail);
    EXPECT_EQ(d.Context().GetDeviceName(), c.deviceName);
    EXPECT_EQ(d.Context().GetContextData()["a.DeviceName"], c.deviceName);
}

INSTANTIATE_TEST_SUITE_P(
    Devices, DeviceIdentity,
    ::testing::Values(
        DeviceCase{"Microsoft", "Microsoft", "Model 930", "", "", "; Microsoft Corporation; Model 930) like Gecko",
                   "Microsoft Model 930"},
        DeviceCase{"OtherMaker", "Microsoft Mobile", "RM-1", "", "", "; Microsoft Mobile; RM-1) like Gecko",
                   "Microsoft Mobile RM-1"},
        DeviceCase{"MakerOnly", "Contoso", "", "", "", "; Contoso) like Gecko", "Contoso Unknown"},
        DeviceCase{"ModelOnly", "", "Lumia", "", "", "; Lumia) like Gecko", "Unknown Lumia"},
        DeviceCase{"Nothing", "", "", "", "", ") like Gecko", "Unknown Unknown"},
        DeviceCase{"FromSystem", "", "", "LENOVO\n", "ThinkPad X1 Carbon\n", "; LENOVO; ThinkPad X1 Carbon) like Gecko",
                   "LENOVO ThinkPad X1 Carbon"},
        DeviceCase{"HostWins", "Microsoft", "", "Dell Inc.\n", "XPS 13\n",
                   "; Microsoft Corporation; XPS 13) like Gecko", "Microsoft XPS 13"}),
    [](const auto& info) { return std::string(info.param.name); });

struct ManifestCase {
    const char* name;
    const char* manifest;  // nullptr: no file
    std::string appName, version, build, id;
    const char* failure;   // nullptr: no error line
};

void PrintTo(const ManifestCase& c, std::ostream* os) { *os << c.name; }

class ApplicationIdentity : public ::testing::TestWithParam<ManifestCase> {};

TEST_P(ApplicationIdentity, ComesFromTheManifest) {
    const auto& c = GetParam();
    Device d;
    if (c.manifest != nullptr) d.package.Write("AppxManifest.xml", c.manifest);
    auto& context = d.Context();
    EXPECT_EQ(context.GetApplicationId(), c.id);
    EXPECT_EQ(context.GetApplicationName(), c.appName);
    EXPECT_EQ(context.GetApplicationVersion(), c.version);
    EXPECT_EQ(context.GetApplicationBuild(), c.build);
    EXPECT_EQ(context.GetContextData()["a.AppID"], c.id);
    const auto errors = d.ErrorLines();
    if (c.failure == nullptr) {
        EXPECT_TRUE(errors.empty());
    } else {
        ASSERT_EQ(errors.size(), 1u) << "the manifest is read once";
        EXPECT_EQ(errors[0], std::string(kManifestError) + c.failure + ")");
    }
}

const std::string kMyApp = Manifest("2.1.5.3", "MyApp");
const std::string kName = Manifest("1.0.0.0", "Name");
const std::string kLargest = Manifest("65535.7.99.12", "Größe &amp; Co");

INSTANTIATE_TEST_SUITE_P(
    Manifests, ApplicationIdentity,
    ::testing::Values(
        ManifestCase{"BuildLeftOutOfVersion", kMyApp.c_str(), "MyApp", "2.1.3", "5", "MyApp 2.1.3 (5)", nullptr},
        ManifestCase{"ZeroVersion", kName.c_str(), "Name", "1.0.0", "0", "Name 1.0.0 (0)", nullptr},
        ManifestCase{"TextAndLargeParts", kLargest.c_str(), "Größe & Co", "65535.7.12", "99",
                     "Größe & Co 65535.7.12 (99)", nullptr},
        ManifestCase{"Missing", nullptr, "Unknown", "0.0.0", "0", "Unknown 0.0.0 (0)", "File was not found"},
        ManifestCase{"Broken", "<Package><Identity Version=\"3.0.1.2\"><Properties>", "Unknown", "0.0.0", "0",
                     "Unknown 0.0.0 (0)", "Start-end tags mismatch"},
        ManifestCase{"NoDisplayName", "<Package><Identity Version=\"3.0.1.2\"/><Properties/></Package>", "Unknown",
                     "3.0.2", "1", "Unknown 3.0.2 (1)", "No DisplayName element found"},
        ManifestCase{"OddVersion", "<Package><Identity Version=\"4.x\"/><Properties><DisplayName>A</DisplayName>"
                                   "</Properties></Package>",
                     "A", "4.0.0", "0", "A 4.0.0 (0)", nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DeviceResolution, FromTheWindowCallbackOnceUnknownIncluded) {
    struct Case {
        std::vector<std::optional<std::pair<double, double>>> answers;  // empty: no callback
        bool throws;
        std::string expected;
    };
    const Case cases[] = {
        {{}, false, "Unknown"},
        {{std::pair(480.0, 800.0), std::pair(1.0, 1.0)}, false, "480x800"},
        {{std::pair(1366.4, 767.6)}, false, "1366x768"},
        {{std::nullopt, std::pair(480.0, 800.0)}, false, "Unknown"},
        {{std::pair(480.0, 800.0)}, true, "Unknown"},
    };
    for (const auto& c : cases) {
        Device d;
        int calls = 0;
        if (!c.answers.empty()) {
            d.host.windowSize = [&]() -> std::optional<std::pair<double, double>> {
                if (c.throws) throw std::runtime_error("no window");
                return c.answers[std::min<std::size_t>(calls++, c.answers.size() - 1)];
            };
        }
        auto& context = d.Context();
        EXPECT_EQ(context.GetResolution(), c.expected);
        EXPECT_EQ(context.GetResolution(), c.expected);
        EXPECT_EQ(context.GetContextData()["a.Resolution"], c.expected);
        EXPECT_LE(calls, 1);
    }
}

TEST(DeviceContextMap, HoldsTheFiveValues) {
    Device d;
    d.host.deviceManufacturer = "Microsoft";
    d.host.deviceModel = "Model 930";
    d.host.windowSize = [] { return std::optional(std::pair(480.0, 800.0)); };
    d.package.Write("AppxManifest.xml", Manifest("2.1.5.3", "MyApp"));
    auto& context = d.Context();
    const StringMap expected{{"a.AppID", "MyApp 2.1.3 (5)"},
                             {"a.CarrierName", ""},
                             {"a.DeviceName", "Microsoft Model 930"},
                             {"a.OSVersion", "Windows Phone 8.1"},
                             {"a.Resolution", "480x800"}};
    EXPECT_EQ(context.GetContextData(), expected);
    // Later changes of the sources do not reach the values already computed.
    d.package.Write("AppxManifest.xml", Manifest("9.9.9.9", "Other"));
    EXPECT_EQ(context.GetContextData(), expected);
    EXPECT_EQ(context.GetOSVersion(), "Windows Phone 8.1");
    EXPECT_EQ(context.GetCarrierName(), "");
}

TEST(DeviceContextMap, ConcurrentFirstRequestsComputeEachValueOnce) {
    Device d;  // no manifest: each read of it would log one error line
    d.server.Route("/id", [](const httplib::Request&, httplib::Response& response) {
        response.set_content("{\"id\":\"SERVER-AID\"}", "application/json");
    });
    auto& context = d.Context();
    std::vector<std::thread> threads;
    std::vector<std::string> ids(8), aids(8);
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            // Half start with the map (map lock, then id lock), half with the id and its parts.
            if (t % 2 == 0) {
                ids[t] = context.GetContextData()["a.AppID"];
            } else {
                ids[t] = context.GetApplicationId();
                ids[t] += "|" + context.GetApplicationName() + " " + context.GetApplicationVersion() + " (" +
                          context.GetApplicationBuild() + ")";
            }
            aids[t] = context.GetAid();
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < 8; ++t) {
        EXPECT_EQ(ids[t], t % 2 == 0 ? "Unknown 0.0.0 (0)" : "Unknown 0.0.0 (0)|Unknown 0.0.0 (0)");
        EXPECT_EQ(aids[t], "SERVER-AID");
    }
    EXPECT_EQ(d.ErrorLines().size(), 1u);
    EXPECT_EQ(d.server.Count("/id"), 1u);
}

const std::regex kAidForm("^[0-7][0-9A-F]{15}-[0-3][0-9A-F]{15}$");

TEST(Aid, FetchedStoredAndReusedByTheNextRuntime) {
    LoopbackServer server;
    server.Route("/id", [](const httplib::Request&, httplib::Response& response) {
        response.set_content("{\"id\":\"3F2504E04F8911D3-09A0300C04FF0A1B\",\"other\":1}", "application/json");
    });
    test::TestRuntime t("{\"analytics\":{\"rsids\":\"rs\",\"server\":\"127.0.0.1:" + std::to_string(server.Port()) +
                        "\",\"ssl\":false}}");
    EXPECT_EQ(t.runtime->Get<DeviceContext>().GetAid(), "3F2504E04F8911D3-09A0300C04FF0A1B");
    EXPECT_EQ(t.runtime->Get<DeviceContext>().GetAid(), "3F2504E04F8911D3-09A0300C04FF0A1B");
    EXPECT_EQ(LookupText(t.runtime->Settings(), kAidKey), "3F2504E04F8911D3-09A0300C04FF0A1B");
    t.runtime.reset();

    auto second = t.Restart();
    EXPECT_EQ(second->Get<DeviceContext>().GetAid(), "3F2504E04F8911D3-09A0300C04FF0A1B");
    EXPECT_EQ(server.Count("/id"), 1u);
}

TEST(Aid, StoredValueIsReturnedAsItIs) {
    Device d;
    d.settings.Insert(kAidKey, std::string("not-even-hex {}"));
    EXPECT_EQ(d.Context().GetAid(), "not-even-hex {}");
    EXPECT_EQ(d.server.Count("/id"), 0u);
}

struct BadAnswer {
    const char* name;
    std::function<void(httplib::Response&)> answer;  // empty: the server holds the answer
    bool unreachable;
    std::vector<std::string> lines;  // debug lines expected, in order
};

void PrintTo(const BadAnswer& c, std::ostream* os) { *os << c.name; }

class AidFallback : public ::testing::TestWithParam<BadAnswer> {};

TEST_P(AidFallback, GeneratesAndStoresOne) {
    const auto& c = GetParam();
    Device d;
    d.server.Route("/id", [&](const httplib::Request&, httplib::Response& response) {
        if (c.answer) {
            c.answer(response);
        } else {
            d.server.Hold();  // answers only after the client has given up
            response.set_content("{\"id\":\"late\"}", "application/json");
        }
    });
    test::ClosedPort closed;
    if (c.unreachable) d.config.server = "127.0.0.1:" + std::to_string(closed.Port());

    const std::string aid = d.Context().GetAid();
    EXPECT_TRUE(std::regex_match(aid, kAidForm)) << aid;
    EXPECT_EQ(LookupText(d.settings, kAidKey), aid);
    EXPECT_EQ(d.Context().GetAid(), aid);
    EXPECT_EQ(d.capture.Lines(), c.lines);
    EXPECT_EQ(d.server.Count("/id"), c.unreachable ? 0u : 1u);
}

TEST(Aid, SecureTransportAsksOverTls) {
    Device d;  // the loopback server speaks plain HTTP only, so the TLS handshake fails
    d.config.ssl = true;
    const std::string aid = d.Context().GetAid();
    EXPECT_TRUE(std::regex_match(aid, kAidForm)) << aid;
    EXPECT_EQ(d.server.Count("/id"), 0u);
    const auto lines = d.capture.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Velmora Debug:Request Handler - Error processing request (Unknown COMException)");
    EXPECT_EQ(lines[1].rfind("Velmora Debug:Analytics - Unable to retrieve aid from server (", 0), 0u) << lines[1];
}

const std::string kRefused = "A connection with the server specified in the uri parameter could not be established.";

INSTANTIATE_TEST_SUITE_P(
    Answers, AidFallback,
    ::testing::Values(
        BadAnswer{"NotJson", [](httplib::Response& r) { r.set_content("id=123", "text/plain"); }, false, {}},
        BadAnswer{"BrokenJson", [](httplib::Response& r) { r.set_content("{\"id\":", "application/json"); }, false,
                  {}},
        BadAnswer{"ArrayFirst", [](httplib::Response& r) { r.set_content("[{\"id\":\"A\"}]", "application/json"); },
                  false, {}},
        BadAnswer{"LeadingBlank",
                  [](httplib::Response& r) { r.set_content(" {\"id\":\"A\"}", "application/json"); }, false, {}},
        BadAnswer{"IdNotText", [](httplib::Response& r) { r.set_content("{\"id\":42}", "application/json"); }, false,
                  {}},
        BadAnswer{"Empty", [](httplib::Response& r) { r.status = 500; }, false, {}},
        BadAnswer{"Slow", nullptr, false, {"Velmora Debug:Request Handler - Request timed out"}},
        BadAnswer{"Unreachable", nullptr, true,
                  {"Velmora Debug:Request Handler - Error processing request (" + kRefused + ")",
                   "Velmora Debug:Analytics - Unable to retrieve aid from server (" + kRefused + ")"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Aid, GeneratedValuesFollowTheHalvesRule) {
    Device d;
    auto& context = d.Context();
    std::set<std::string> seen;
    std::set<char> highFirst, lowFirst;
    for (int i = 0; i < 4000; ++i) {
        const std::string aid = context.GenerateAid();
        ASSERT_TRUE(std::regex_match(aid, kAidForm)) << aid;
        seen.insert(aid);
        highFirst.insert(aid[0]);
        lowFirst.insert(aid[17]);
    }
    EXPECT_EQ(seen.size(), 4000u);
    EXPECT_EQ(highFirst.size(), 8u) << "every digit 0 to 7 leads some high half";
    EXPECT_EQ(lowFirst.size(), 4u) << "every digit 0 to 3 leads some low half";
}

TEST(Aid, FromGuidKeepsAllowedLeadsAndReplacesOthers) {
    Device d;
    auto& context = d.Context();
    // Allowed leads stay: 0 in the high half, 2 in the low half.
    EXPECT_EQ(context.AidFromGuid("{0A1B2C3D-4E5F-6071-2293-A4B5C6D7E8F9}"), "0A1B2C3D4E5F6071-2293A4B5C6D7E8F9");
    for (int i = 0; i < 200; ++i) {
        const std::string aid = context.AidFromGuid("{f0000000-0000-0000-c000-0000000000ab}");
        ASSERT_TRUE(std::regex_match(aid, std::regex("^[0-7]000000000000000-[0-3]0000000000000AB$"))) << aid;
    }
}

TEST(VisitorId, StoredAndReadBack) {
    Device d;
    EXPECT_EQ(d.Context().GetVisitorId(), "");
    d.Context().SetVisitorId("user-42");
    EXPECT_EQ(d.Context().GetVisitorId(), "user-42");
    EXPECT_EQ(LookupText(d.settings, kVisitorIdKey), "user-42");

    DeviceContext later(d.host, d.config, d.settings, d.http, d.log);
    EXPECT_EQ(later.GetVisitorId(), "user-42");
    d.settings.Remove(kVisitorIdKey);
    EXPECT_EQ(later.GetVisitorId(), "") << "nothing stored and nothing set in this context";
    EXPECT_EQ(d.Context().GetVisitorId(), "user-42") << "the value in memory";
}

}  // namespace
}  // namespace velmora
