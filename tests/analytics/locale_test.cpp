// Numbers on the wire, in the settings and in log lines do not follow the application's locale.
#include "analytics/values.h"
#include "analytics_test.h"
#include "lifetime_value/lifetime_value.h"
#include "location/location.h"
#include "media/media_module.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <clocale>
#include <locale>

namespace velmora::test {
namespace {

constexpr const char* kGerman = "de_DE.UTF-8";

// The process's C and C++ locales set as an application would set them, restored at the end.
class ProcessLocale {
public:
    explicit ProcessLocale(const char* name) : c_(std::setlocale(LC_ALL, nullptr)) {
        cpp_ = std::locale::global(std::locale(name));
        std::setlocale(LC_ALL, name);
    }
    ~ProcessLocale() {
        std::locale::global(cpp_);
        std::setlocale(LC_ALL, c_.c_str());
    }

private:
    std::string c_;
    std::locale cpp_;
};

struct Outcome {
    std::vector<std::string> targets, lines;
    std::optional<std::string> lifetimeValue;
    std::string decimalPoint;  // the locale's own, to show the run was really made under it
};

// Location, lifetime value and media calls under `locale`, on a runtime of their own.
Outcome RunUnder(const char* locale) {
    ProcessLocale scope(locale);
    LoopbackServer server;
    TestRuntime env(R"({"analytics":{"rsids":"rs","server":")" + server.Address() +
                    R"(","offlineEnabled":true,"ssl":false,"poi":[["near",40.7127837,-74.0059413,500.5]]}})");
    auto& runtime = *env.runtime;
    runtime.Log().SetDebugEnabled(true);
    runtime.Settings().Insert(kAidKey, std::string("0123456789ABCDEF-0123456789ABCDEF"));
    const StringMap data = TranslateContextData({{"ratio", 2.25}, {"share", 0.1f}}, runtime.Log());
    auto& location = runtime.Location();
    location.TrackLocation(40.7127837, -74.0059413, 12.6, data);
    location.TrackLocation(95.25, -0.5, 1, data);  // out of bounds: a warning with numbers
    auto& value = runtime.LifetimeValues();
    value.Increase(12.5f, data);
    value.Increase(0.754f, data);  // continues from the stored text
    auto& media = runtime.Media();
    auto settings = std::make_shared<Velmora::MediaSettings>();
    settings->Name = "clip", settings->PlayerName = "player", settings->Length = 130.7;
    settings->Milestones = "25,50", settings->SegmentByMilestones = true;
    media.Queue().Post([&] {
        media.Open(settings);
        media.Play("clip", 10.5);
        media.Track("clip", data);
        media.Stop("clip", 70.25);
        media.Complete("clip", 130.7);
    });
    EXPECT_TRUE(runtime.Flush(kWait));
    Outcome outcome{server.Targets(), env.log.Lines(), LookupText(runtime.Settings(), kLifetimeValueKey),
                    std::localeconv()->decimal_point};
    for (auto& line : outcome.lines) {
        if (auto at = line.find(server.Address()); at != std::string::npos) line.replace(at, server.Address().size(), "server");
    }
    std::sort(outcome.lines.begin(), outcome.lines.end());  // queues log in their own order
    return outcome;
}

TEST(Locale, AGermanApplicationSendsStoresAndLogsTheSameBytesAsTheCLocale) {
    if (locale_t probe = ::newlocale(LC_ALL_MASK, kGerman, static_cast<locale_t>(0))) {
        ::freelocale(probe);
    } else {
        GTEST_SKIP() << kGerman << " is not installed (scripts/install-deps.sh generates it)";
    }
    const Outcome c = RunUnder("C");
    const Outcome german = RunUnder(kGerman);
    EXPECT_EQ(german.decimalPoint + c.decimalPoint, ",.");
    EXPECT_EQ(c.targets.size(), 6u);
    EXPECT_THAT(c.lines, ::testing::Contains(::testing::HasSubstr("TrackLocation failed")));
    EXPECT_EQ(german.targets, c.targets);
    EXPECT_EQ(german.lines, c.lines);
    EXPECT_EQ(german.lifetimeValue, c.lifetimeValue);
}

}  // namespace
}  // namespace velmora::test
