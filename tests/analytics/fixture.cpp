#include "fixture.h"

#include <cstdlib>
#include <ctime>

namespace velmora::test {

void AnalyticsTest::SetUpTestSuite() {
    ::setenv("TZ", "EST5", 1);
    tzset();
}

void AnalyticsTest::Start(const std::string& config) {
    options_.deviceManufacturer = "Acme";
    options_.deviceModel = "Phone1";
    options_.languageTag = "de-DE";
    options_.windowSize = [] { return std::optional<std::pair<double, double>>({480.0, 800.0}); };
    options_.internetAvailable = [this] { return online_.load(); };
    env_ = std::make_unique<TestRuntime>(config, options_);
    env_->package.Write("AppxManifest.xml", kManifest);
    clock_ = std::make_shared<CountingClock>(env_->clock);
    env_->runtime = std::make_unique<Runtime>(env_->Options(options_), clock_);
    runtime().Log().SetDebugEnabled(true);
    runtime().Settings().Insert(kAidKey, std::string(kAid));
}

void AnalyticsTest::Restart() {
    env_->runtime.reset();
    env_->runtime = std::make_unique<Runtime>(env_->Options(options_), clock_);
    runtime().Log().SetDebugEnabled(true);
}

std::string AnalyticsTest::FileText() { return env_->local.Read(HitQueue::kFileName); }

std::vector<QueuedHit> AnalyticsTest::FileHits() {
    std::vector<QueuedHit> hits;
    ParseQueueFile(FileText(), hits);
    return hits;
}

std::string Variable(const std::string& hit, const std::string& name) {
    const std::string key = "&" + name + "=";
    auto at = hit.find(key);
    if (at == std::string::npos) return "";
    at += key.size();
    return hit.substr(at, hit.find('&', at) - at);
}

}  // namespace velmora::test
