// The C interface: the C example's hits at a loopback server, the map's wire texts, and callbacks
// that never make the caller wait.
#include "reliability/child_process.h"

#include <velmora.h>

#include <gtest/gtest.h>

namespace velmora::test {
namespace {

TEST(CProgram, ItsHitsArriveWithTheirValuesAndItsCountersAgree) {
    LoopbackServer server;
    TempDir local;
    ChildProcess program(VELMORA_C_EXAMPLE, {"--collector", server.Address(), "--local-dir", local.path().string()},
                         local / "example.err");
    ASSERT_EQ(program.Wait(std::chrono::seconds(60)), 0) << program.ErrorOutput();
    std::vector<std::string> lines;
    for (std::string line; program.ReadLine(line, std::chrono::milliseconds(0));) lines.push_back(line);
    const auto hits = server.Hits();
    std::map<std::string, std::map<std::string, std::string>> byName;  // page name or action: context
    for (const auto& hit : hits) byName[hit.variables.count("pev2") ? hit.variables.at("pev2") : hit.variables.at("pageName")] = hit.context;
    const std::map<std::string, std::string> home = {{"section", "front page"}, {"visitortype", "returning"}, {"items", "3"},
                                                     {"carttotal", "25.5"}, {"member", "true"}};
    for (const auto& [key, value] : home) EXPECT_EQ(byName["Home"][key], value) << key;
    EXPECT_EQ(byName["AMACTION:AddToCart"]["price"], "12.5");
    EXPECT_EQ(byName["AMACTION:Checkout"]["product"], "Espresso cup");
    EXPECT_EQ(byName["AMACTION:AddToCart"]["aResolution"], "1024x768");
    EXPECT_EQ(byName["AMACTION:AddToCart"]["aAppID"], "Velmora C Example 1.0.3 (0)");
    for (const auto& request : server.Requests()) {  // with the offer and identifier requests, in any order
        EXPECT_TRUE(request.path.rfind("/b/ss/", 0) != 0 || request.Header("User-Agent").rfind("Mozilla/5.0 (Linux ", 0) == 0)
            << request.target;
    }
    EXPECT_NE(std::find(lines.begin(), lines.end(), "c-example: sent cart.total = 25.5"), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "c-example: offer content: default banner"), lines.end());
    EXPECT_EQ(lines.back(), "c-example: queued " + std::to_string(hits.size()) + " delivered " + std::to_string(hits.size()) +
                                " waiting 0 last status 200");
}

TEST(CMap, KeepsKeysInByteOrderAndGivesEachValueItsWireText) {
    velmora_map_t* map = velmora_map_new();
    velmora_map_set_string(map, "b", "first");
    velmora_map_set_string(map, "b", "caf\xC3\xA9 \xFF");  // replaced; the invalid byte becomes U+FFFD
    velmora_map_set_int(map, "a", -9007199254740993);
    velmora_map_set_double(map, "\xC3\xA9", 0.1);
    velmora_map_set_bool(map, "Z", 0);
    velmora_map_set_string(map, nullptr, nullptr);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"", ""}, {"Z", "false"}, {"a", "-9007199254740993"}, {"b", "caf\xC3\xA9 \xEF\xBF\xBD"}, {"\xC3\xA9", "0.1"}};
    ASSERT_EQ(velmora_map_size(map), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(std::make_pair(std::string(velmora_map_key(map, i)), std::string(velmora_map_text(map, i))), expected[i]);
    }
    EXPECT_TRUE(velmora_map_key(map, expected.size()) == nullptr && velmora_map_text(map, expected.size()) == nullptr);
    EXPECT_EQ(velmora_map_size(nullptr), 0u);
    velmora_map_free(map);
}

// A callback's answer as the test thread sees it.
struct Answer {
    std::mutex mutex;
    std::string text = "(none)";
    std::thread::id thread;
    static void Take(const char* text, void* self) {
        auto* answer = static_cast<Answer*>(self);
        std::lock_guard lock(answer->mutex);
        answer->text = text;
        answer->thread = std::this_thread::get_id();
    }
    std::string Text() { std::lock_guard lock(mutex); return text; }
};

TEST(CInterface, AnOfferCallbackComesFromALibraryThreadAndAfterShutdownFromTheCaller) {
    LoopbackServer server;
    server.OnGet([&server](const httplib::Request&, httplib::Response& response) {
        server.Hold();
        response.set_content("offer text", "text/plain");
    });
    TestRuntime env;
    velmora_options_t* options = velmora_options_new();
    velmora_options_add_connect_to(options, ("offers.tt.vantor.example:80:" + server.Address()).c_str());
    env.package.Write("VelmoraConfig.json", R"({"analytics":{"rsids":"r","server":"s","privacyDefault":"optedin"},"vantor":{"clientCode":"offers","timeout":5}})");
    velmora_options_set_package_directory(options, env.package.path().c_str());
    velmora_options_set_local_directory(options, env.local.path().c_str());
    ASSERT_EQ(velmora_configure(options), 1);
    EXPECT_STREQ((std::unique_ptr<char, void (*)(void*)>(velmora_get_user_identifier(), velmora_free).get()), "");  // NULL: no memory
    Answer held, late;
    velmora_vantor_load_request("box", "default", nullptr, &Answer::Take, &held);  // returns while the server holds it
    ASSERT_TRUE(server.WaitForRequests(1));
    EXPECT_EQ(held.Text(), "(none)");
    server.Release();
    ASSERT_TRUE(WaitUntil([&] { return held.Text() == "offer text"; }));
    EXPECT_NE(held.thread, std::this_thread::get_id());
    velmora_shutdown(1000);
    velmora_vantor_load_request("box", "default", nullptr, &Answer::Take, &late);
    EXPECT_EQ(late.Text(), "default");
    EXPECT_EQ(late.thread, std::this_thread::get_id());
}

}  // namespace
}  // namespace velmora::test
