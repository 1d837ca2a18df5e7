// velmora-check over a table of configuration texts: which problems it names (by key, in order,
// and no others) and which lines explain the values the library uses.
#include "check.h"
#include "support/test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace velmora::check {
namespace {

// `problems`: the start of each problem line, in order; `lines`: whole lines that must be in the report.
struct Case { const char *name, *config; std::vector<std::string> problems, lines; };

const Case kCases[] = {
    {"clean", R"({"version":"2.0","analytics":{"rsids":"suite1,suite2","server":"collect.example.com:8080","ssl":true,
         "offlineEnabled":true,"batchLimit":5,"lifecycleTimeout":60,"privacyDefault":"optedout",
         "poi":[["Store",40.7,-111.9,150]]},
        "vantor":{"clientCode":"acme","timeout":3},"cohorta":{"server":"aud.example.com"}})", {},
     {R"(version = "2.0"  (from the file))",
      R"(analytics.rsids = "suite1,suite2"  (from the file; in the hit URL path, /b/ss/<rsids>/))",
      R"(analytics.charset = "UTF-8"  (default: not in the file; sent as "ce" in every hit))",
      R"(analytics.privacyDefault = OptOut  (from the file; from "optedout"; a status stored by Config::SetPrivacyStatus wins over the file's default))",
      R"(analytics.poi = 1 point(s): "Store" (40.7, -111.9, 150.0 m)  (from the file))",
      "analytics: on; hits go to https://collect.example.com:8080/b/ss/suite1,suite2/0/WINU-" VELMORA_VERSION_STRING "/",
      "vantor: on; offer requests go to http://acme.tt.vantor.example/m2/acme/ubox/raw",
      "cohorta: on; signals go to http://aud.example.com/event?"}},
    {"wrong types fall back to defaults",
     R"({"version":3,"analytics":{"rsids":"s","server":"h","ssl":"true","lifecycleTimeout":"300","poi":{}},
         "vantor":[],"cohorta":{"server":null}})",
     {"version: the file has a number (3), not a string; the library uses the default \"1.0\"",
      "analytics.ssl: the file has a string (\"true\"), not a boolean; the library uses the default false",
      "analytics.lifecycleTimeout: the file has a string (\"300\"), not a number", "analytics.poi: the file has an object",
      "vantor: the file has an array, not an object; the library treats the section as absent",
      "cohorta.server: the file has null, not a string", "cohorta: off, because \"server\" is empty"},
     {R"(analytics.lifecycleTimeout = 300 s  (default: the file has a string ("300"), not a number; a pause shorter than this resumes the session))",
      R"(vantor.timeout = 0 s  (zero: no "vantor" section))", "vantor: off (no section); offer requests yield the empty string"}},
    {"servers, numbers and names",
     R"({"analytics":{"rsids":"a b","server":"https://h.example.com","offlineEnabled":false,"batchLimit":5000,
         "lifecycleTimeout":12.9,"privacyDefault":"OptedOut"},"vantor":{"clientCode":"a.b","timeout":0},"cohorta":{"server":"a.example/"}})",
     {"analytics.rsids: \"a b\" has characters", "analytics.server: \"https://h.example.com\" has a scheme",
      "analytics.lifecycleTimeout: 12.9 is not a whole number; the library truncates it to 12",
      "analytics.batchLimit: 5000 is outside 0 to 1000 hits", "analytics.batchLimit: has no effect without",
      "analytics.privacyDefault: \"OptedOut\" is not one of",
      "vantor.clientCode: \"a.b\" cannot be the first label", "vantor.timeout: 0 is outside 1 to 60 seconds: 0 or less",
      "cohorta.server: \"a.example/\" ends with \"/\""},
     {R"(analytics.privacyDefault = OptIn  (from the file; from "OptedOut"; a status stored by Config::SetPrivacyStatus wins over the file's default))"}},
    {"unknown keys and typos",
     R"({"analytic":{},"analytics":{"rsids":"s","server":"h/b","offlineEnable":true,"lifecycleTimeout":-1,
         "privacyDefault":"optunknown"},
         "vantor":{"clientCode":"c","timeOut":5},"cohorta":{"server":"a"}})",
     {"analytic: unknown key, ignored by the library (did you mean \"analytics\"?)",
      "analytics.server: \"h/b\" has a path", "analytics.lifecycleTimeout: -1 is outside 0 to 86400 seconds",
      "analytics.privacyDefault: \"optunknown\" needs \"offlineEnabled\": true; the library uses OptIn",
      "analytics.offlineEnable: unknown key, ignored by the library (did you mean \"offlineEnabled\"?)",
      "vantor.timeOut: unknown key, ignored by the library (did you mean \"timeout\"?)"},
     {"library log: Velmora Warning:Analytics - Default privacy status cannot be Unknown when offline tracking is "
      "disabled, overriding to OptIn"}},
    {"points of interest",
     R"({"analytics":{"rsids":"s","server":"h","poi":[["a",1,2,3],["b",1,2],[5,1,2,3],["c",1,2,3,4],["d",4,5,6],
         ["",1,2,3],["e",91,2,0]]},"vantor":{"clientCode":"c"},"cohorta":{"server":"a"}})",
     {"analytics.poi[1]: skipped by the library: 3 elements, not 4", "analytics.poi[2]: skipped by the library",
      "analytics.poi[3]: skipped by the library: 5 elements", "analytics.poi[5]: has no name",
      "analytics.poi[6]: latitude 91.0 is outside -90 to 90", "analytics.poi[6]: radius 0.0 m is not positive"},
     {R"(analytics.poi = 4 point(s): "a" (1.0, 2.0, 3.0 m), "d" (4.0, 5.0, 6.0 m), "" (1.0, 2.0, 3.0 m), "e" (91.0, 2.0, 0.0 m)  (from the file))"}},
    {"modules left off", R"({"analytics":{"server":"h"},"vantor":{"timeout":2}})",
     {"analytics: off, because \"rsids\" is empty", "vantor: off, because \"clientCode\" is empty"},
     {"cohorta: off (no section); signals yield no profile", "library log: Velmora Debug:Config - Cohorta not configured"}},
    {"no analytics section", R"({"version":"1"})", {"analytics: no section"},
     {"analytics.privacyDefault = 0 (no status: nothing is sent)  (zero: no \"analytics\" section)"}},
    {"not json", "{\"analytics\": {", {"VelmoraConfig.json: not a JSON object"},
     {"library log: Velmora Error:Config - Unable to parse local config file (empty or malformed json)"}},
};

TEST(ConfigCheck, ExplainsEveryKeyAndNamesEachProblem) {
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        const Report report = CheckConfigText(c.config);
        EXPECT_EQ(report.Status(), c.problems.empty() ? 0 : 1);
        std::vector<::testing::Matcher<std::string>> problems;
        for (const auto& start : c.problems) problems.push_back(::testing::StartsWith(start));
        EXPECT_THAT(report.problems, ::testing::ElementsAreArray(problems));
        EXPECT_THAT(report.lines, ::testing::IsSupersetOf(c.lines));
    }
}

TEST(ConfigCheck, ReadsTheManifestAndRunsAsACommand) {
    test::TempDir dir;
    dir.Write("VelmoraConfig.json", kCases[0].config);
    dir.Write("AppxManifest.xml", "<Package><Identity Name='x' Version='1.2.3.4'/><Properties><DisplayName>Shop"
                                  "</DisplayName></Properties></Package>");
    std::ostringstream out, err;
    const auto run = [&](const std::vector<std::string>& arguments) {
        out.str("");
        return RunCheck(arguments, out, err);
    };
    const auto shows = [&](const std::string& text) { return out.str().find(text) != std::string::npos; };
    EXPECT_EQ(run({dir.path().string()}), 0) << out.str();
    EXPECT_TRUE(shows("AppxManifest.xml: name \"Shop\", version 1.2.4, build 3; hits carry a.AppID \"Shop 1.2.4 (3)\""));
    EXPECT_TRUE(shows("\nno problems found\n"));

    dir.Write("AppxManifest.xml", "<Package><Identity Version='1.2'/></Package>");
    EXPECT_EQ(run({(dir / "VelmoraConfig.json").string()}), 1);
    EXPECT_TRUE(shows("problem: AppxManifest.xml: Identity@Version: \"1.2\" is not")) << out.str();
    EXPECT_TRUE(shows("problem: AppxManifest.xml: the library logs \"Velmora Error:Analytics - Unable to read "
                      "AppxManifest file to obtain Application name (No DisplayName element found)\""));

    std::filesystem::remove(dir / "VelmoraConfig.json");
    EXPECT_EQ(run({dir.path().string()}), 1);
    EXPECT_TRUE(shows("problem: VelmoraConfig.json: cannot be read"));
    using Args = std::vector<std::string>;
    for (const Args& usage : {Args{"--verbose"}, Args{"a", "b"}, Args{"/no/such/dir"}, Args{"--help"}})
        EXPECT_EQ(run(usage), usage[0] == "--help" ? 0 : 2) << usage[0];
    EXPECT_EQ(out.str().rfind("usage: velmora-check", 0), 0u) << "--help prints the usage";
}

}  // namespace
}  // namespace velmora::check
