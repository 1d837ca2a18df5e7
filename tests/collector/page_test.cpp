// The live page rendered by a real browser: headless Chromium loads it, lets its script poll the
// feed, and hands back the resulting document.

#include "collector/collector_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace velmora::collector {
namespace {

std::string RenderedDom(const std::string& url, const velmora::test::TempDir& profile) {
    const std::string command =
        "timeout 120 chromium --headless --no-sandbox --disable-gpu --disable-background-networking "
        "--disable-component-update --disable-sync --no-first-run --user-data-dir='" + profile.path().string() +
        "' --virtual-time-budget=3000 --dump-dom '" + url + "' 2>/dev/null";
    std::string dom;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char chunk[4096];
        for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) dom.append(chunk, n);
        ::pclose(pipe);
    }
    return dom;
}

TEST(CollectorPage, ListsHitsNewestFirstWithTheirTablesInABrowser) {
    test::RunningCollector running;
    auto client = running.Client();
    if (std::system("command -v chromium >/dev/null 2>&1") != 0) GTEST_SKIP() << "chromium is not installed";
    ASSERT_EQ(client->Get("/b/ss/demo.rsid/0/WINU-4.0.0/s1?AQB=1&ndh=1&pageName=Welcome%20Screen&ts=1714564800"
                          "&c.&a.&AppID=Demo%201.0&.a&note=%3Cb%3Enot%20bold%3C%2Fb%3E&.c&AQE=1")->status, 200);
    ASSERT_EQ(client->Get("/b/ss/demo.rsid/0/WINU-4.0.0/s2?AQB=1&ndh=1&pev2=Checkout&c.&city=K%C3%B6ln&.c&AQE=1")
                  ->status, 200);

    velmora::test::TempDir profile;
    const std::string base = "http://127.0.0.1:" + std::to_string(running.collector().Port()) + "/";
    std::string dom = RenderedDom(base, profile);
    for (const char* expected :
         {"2 hits", "report suite demo.rsid", "<th>a.AppID</th><td>Demo 1.0</td>",
          "<th>city</th><td>K\xC3\xB6ln</td>", "<th>pageName</th><td>Welcome Screen</td>",
          "/b/ss/demo.rsid/0/WINU-4.0.0/s2?AQB=1&amp;ndh=1&amp;pev2=Checkout",
          "2024-05-01T12:00:00.000Z", "<td>&lt;b&gt;not bold&lt;/b&gt;</td>"}) {  // a value is text, never markup
        EXPECT_NE(dom.find(expected), std::string::npos) << expected << "\n" << dom;
    }
    EXPECT_LT(dom.find("Checkout"), dom.find("Welcome Screen")) << "newest first";

    // The filter box, prefilled from the address, hides the hits that do not match.
    std::string filtered = RenderedDom(base + "?filter=k%C3%B6ln", profile);
    EXPECT_NE(filtered.find("2 hits, 1 shown"), std::string::npos) << filtered;
    std::size_t section = filtered.rfind("<section", filtered.find("Welcome Screen"));
    ASSERT_NE(section, std::string::npos);
    EXPECT_EQ(filtered.compare(section, 44, "<section class=\"hit\" style=\"display: none;\">"), 0)
        << filtered.substr(section, 80);
}

}  // namespace
}  // namespace velmora::collector
