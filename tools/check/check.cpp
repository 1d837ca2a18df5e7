#include "check.h"

#include "analytics/hit_builder.h"
#include "core/config.h"
#include "core/device.h"
#include "core/http.h"
#include "core/log.h"
#include "core/settings_store.h"
#include "vantor/vantor.h"

#include <nlohmann/json.hpp>
#include <velmora/Version.h>
#include <pugixml.hpp>

#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <ostream>
#include <set>
#include <sstream>

namespace velmora::check {
namespace {

using Json = nlohmann::json;

// An empty settings container of its own, removed afterwards: the report shows what the file
// does, not a status that one application's earlier runs stored.
class ScratchSettings {
public:
    ScratchSettings() {
        std::string pattern = (std::filesystem::temp_directory_path() / "velmora-check-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) {
            directory_ = pattern;
            store_ = std::make_unique<SettingsStore>(directory_, silent_);
        } else {
            // A directory that cannot exist: the store keeps its values in memory.
            store_ = std::make_unique<SettingsStore>("/proc/velmora-check/none", silent_);
        }
    }
    ~ScratchSettings() {
        store_.reset();
        std::error_code error;
        if (!directory_.empty()) std::filesystem::remove_all(directory_, error);
    }
    SettingsStore& Store() { return *store_; }

private:
    Logger silent_{[](std::string_view) {}};
    std::filesystem::path directory_;
    std::unique_ptr<SettingsStore> store_;
};

// Collects the library's own log lines, debug lines included.
struct CapturedLog {
    std::vector<std::string> lines;
    Logger log{[this](std::string_view line) {
        if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
        lines.emplace_back(line);
    }};
    CapturedLog() { log.SetDebugEnabled(true); }
};

enum class Expect { kString, kNumber, kBoolean, kArray };
enum class Source { kSectionAbsent, kAbsent, kWrongType, kFile };

const char* ExpectName(Expect expect) {
    switch (expect) {
        case Expect::kString: return "a string";
        case Expect::kNumber: return "a number";
        case Expect::kBoolean: return "a boolean";
        case Expect::kArray: return "an array";
    }
    return "";
}

bool Matches(const Json& value, Expect expect) {
    switch (expect) {
        case Expect::kString: return value.is_string();
        case Expect::kNumber: return value.is_number();
        case Expect::kBoolean: return value.is_boolean();
        case Expect::kArray: return value.is_array();
    }
    return false;
}

// "a string ("300")", "an object", "null": what the file holds, for a reader.
std::string Describe(const Json& value) {
    if (value.is_null()) return "null";
    std::string name = value.type_name();
    std::string text = (value.is_object() || value.is_array() ? "an " : "a ") + name;
    if (value.is_primitive()) {
        std::string shown = value.dump();
        if (shown.size() > 40) shown = shown.substr(0, 37) + "...";
        text += " (" + shown + ")";
    }
    return text;
}

std::string Quote(const std::string& text) { return Json(text).dump(); }
std::string Bool(bool value) { return value ? "true" : "false"; }
std::string Number(double value) { return Json(value).dump(); }

std::string PrivacyName(std::int32_t status) {
    switch (status) {
        case kPrivacyOptIn: return "OptIn";
        case kPrivacyOptOut: return "OptOut";
        case kPrivacyUnknown: return "Unknown";
        default: return std::to_string(status) + " (no status: nothing is sent)";
    }
}

std::size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                              std::tolower(static_cast<unsigned char>(b[j - 1]));
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// One level of the file (the top or a section) and what the library reads there.
class Level {
public:
    Level(Report& report, const Json* object, std::string path, std::string absentWhy)
        : report_(report), object_(object), path_(std::move(path)), absentWhy_(std::move(absentWhy)) {}

    std::string Label(const std::string& key) const { return path_.empty() ? key : path_ + "." + key; }
    const Json* Find(const char* key) const {
        if (object_ == nullptr) return nullptr;
        auto it = object_->find(key);
        return it != object_->end() ? &*it : nullptr;
    }

    // Writes the key's line: the value the library uses (`used`) and where it comes from.
    Source Field(const char* key, Expect expect, const std::string& used, const std::string& note = "") {
        Source source;
        std::string why;
        const Json* value = Find(key);
        if (object_ == nullptr) {
            source = Source::kSectionAbsent;
            why = absentWhy_;
        } else if (value == nullptr) {
            source = Source::kAbsent;
            why = "default: not in the file";
        } else if (!Matches(*value, expect)) {
            source = Source::kWrongType;
            why = "default: the file has " + Describe(*value) + ", not " + ExpectName(expect);
            Problem(key, "the file has " + Describe(*value) + ", not " + ExpectName(expect) +
                             "; the library uses the default " + used + " instead");
        } else {
            source = Source::kFile;
            why = "from the file";
        }
        if (!note.empty() && object_ != nullptr) why += "; " + note;
        report_.lines.push_back(Label(key) + " = " + used + "  (" + why + ")");
        return source;
    }

    void Problem(const std::string& key, const std::string& text) { report_.problems.push_back(Label(key) + ": " + text); }

    void UnknownKeys(const std::vector<std::string>& known) {
        if (object_ == nullptr) return;
        for (const auto& [key, value] : object_->items()) {
            if (std::find(known.begin(), known.end(), key) != known.end()) continue;
            std::string text = "unknown key, ignored by the library";
            for (const auto& candidate : known) {
                if (EditDistance(key, candidate) <= 2) {
                    text += " (did you mean " + Quote(candidate) + "?)";
                    break;
                }
            }
            Problem(key, text);
        }
    }

    // A whole number within [min, max]; `low` and `high` say what a value beyond each end does.
    void Range(const char* key, std::int32_t used, int min, int max, const std::string& unit, const std::string& low,
               const std::string& high) {
        const Json* value = Find(key);
        if (value == nullptr || !value->is_number()) return;
        const double number = value->get<double>();
        if (std::trunc(number) != number) {
            Problem(key, value->dump() + " is not a whole number; the library truncates it to " + std::to_string(used));
        }
        if (number < min || number > max) {
            Problem(key, value->dump() + " is outside " + std::to_string(min) + " to " + std::to_string(max) + unit +
                             ": " + (number < min ? low : high));
        }
    }

private:
    Report& report_;
    const Json* object_;
    std::string path_;
    std::string absentWhy_;
};

// A host name (with an optional port) and nothing else: the library writes the scheme and the
// path around it.
std::string ServerProblem(const std::string& server, const std::string& schemeNote) {
    if (server.find("://") != std::string::npos) {
        return Quote(server) + " has a scheme; give the host name only (" + schemeNote + ")";
    }
    if (!server.empty() && server.back() == '/') {
        return Quote(server) + " ends with \"/\"; give the host name only (the library adds the path itself)";
    }
    if (server.find('/') != std::string::npos) {
        return Quote(server) + " has a path; give the host name only, with \":port\" if needed";
    }
    const bool clean = std::all_of(server.begin(), server.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '-' || c == ':' || c == '[' || c == ']' || c == '_';
    });
    if (!clean) return Quote(server) + " has characters that do not belong in a host name";
    return "";
}

void CheckPointsOfInterest(Level& level, const Json* poi, const ConfigSettings& config) {
    std::string used = std::to_string(config.pointsOfInterest.size()) + " point(s)";
    for (std::size_t i = 0; i < config.pointsOfInterest.size(); ++i) {
        const auto& point = config.pointsOfInterest[i];
        used += (i == 0 ? ": " : ", ") + Quote(point.name) + " (" + Number(point.latitude) + ", " +
                Number(point.longitude) + ", " + Number(point.radius) + " m)";
    }
    if (level.Field("poi", Expect::kArray, used) != Source::kFile) return;
    for (std::size_t i = 0; i < poi->size(); ++i) {
        const Json& element = (*poi)[i];
        const std::string key = "poi[" + std::to_string(i) + "]";
        const char* form = "; each point is [name, latitude, longitude, radius]: a string and three numbers";
        if (!element.is_array()) {
            level.Problem(key, "skipped by the library: " + Describe(element) + ", not an array" + form);
            continue;
        }
        if (element.size() != 4) {
            level.Problem(key, "skipped by the library: " + std::to_string(element.size()) + " elements, not 4" + form);
            continue;
        }
        if (!element[0].is_string() || !element[1].is_number() || !element[2].is_number() ||
            !element[3].is_number()) {
            level.Problem(key, "skipped by the library: " + element.dump() + " has the wrong types" + form);
            continue;
        }
        const double latitude = element[1].get<double>(), longitude = element[2].get<double>();
        const double radius = element[3].get<double>();
        if (element[0].get<std::string>().empty()) level.Problem(key, "has no name, so it never matches");
        if (latitude < -90 || latitude > 90) level.Problem(key, "latitude " + Number(latitude) + " is outside -90 to 90");
        if (longitude < -180 || longitude > 180) {
            level.Problem(key, "longitude " + Number(longitude) + " is outside -180 to 180");
        }
        if (!(radius > 0)) level.Problem(key, "radius " + Number(radius) + " m is not positive, so it never matches");
    }
}

void CheckAnalytics(Report& report, const Json* section, const ConfigSettings& config) {
    Level level(report, section, "analytics", "zero: no \"analytics\" section");
    level.Field("rsids", Expect::kString, Quote(config.rsids), "in the hit URL path, /b/ss/<rsids>/");
    const bool rsidsClean = std::all_of(config.rsids.begin(), config.rsids.end(), [](unsigned char c) {
        return std::isalnum(c) || c == ',' || c == '.' || c == '_' || c == '-';
    });
    if (!rsidsClean) {
        level.Problem("rsids", Quote(config.rsids) +
                                   " has characters that do not belong in the hit URL path (comma-separated report "
                                   "suite identifiers only)");
    }
    level.Field("server", Expect::kString, Quote(config.server), "the tracking server's host");
    if (auto problem = ServerProblem(config.server, "\"ssl\" chooses https:// or http://"); !problem.empty()) {
        level.Problem("server", problem);
    }
    level.Field("charset", Expect::kString, Quote(config.charset), "sent as \"ce\" in every hit");
    if (section != nullptr && config.charset.empty()) level.Problem("charset", "empty; hits carry an empty \"ce\"");
    level.Field("ssl", Expect::kBoolean, Bool(config.ssl), config.ssl ? "hits use https://" : "hits use http://");
    level.Field("offlineEnabled", Expect::kBoolean, Bool(config.offlineEnabled),
                config.offlineEnabled ? "hits are timestamped and wait in the queue while offline"
                                      : "a hit that cannot be sent at once is dropped");
    level.Field("lifecycleTimeout", Expect::kNumber, std::to_string(config.lifecycleTimeout) + " s",
                "a pause shorter than this resumes the session");
    level.Range("lifecycleTimeout", config.lifecycleTimeout, 0, kMaxLifecycleTimeout, " seconds",
                "every return to the foreground starts a new session",
                "sessions resume after pauses of up to a day or more, so launches are under-counted");
    level.Field("batchLimit", Expect::kNumber, std::to_string(config.batchLimit) + " hits",
                "with offline tracking, sending starts once more hits than this are queued");
    level.Range("batchLimit", config.batchLimit, 0, kMaxBatchLimit, " hits", "a negative limit works as 0 does",
                "hits stay on the device until that many are queued");
    if (section != nullptr && config.batchLimit > 0 && !config.offlineEnabled) {
        level.Problem("batchLimit", "has no effect without \"offlineEnabled\": true; every hit is sent at once");
    }

    // The privacy status: the file's default, unless an application stored one.
    std::string note = "a status stored by Config::SetPrivacyStatus wins over the file's default";
    const Json* privacy = level.Find("privacyDefault");
    if (privacy != nullptr && privacy->is_string()) note = "from " + privacy->dump() + "; " + note;
    level.Field("privacyDefault", Expect::kString, PrivacyName(config.Privacy()), note);
    if (privacy != nullptr && privacy->is_string()) {
        const auto text = privacy->get<std::string>();
        if (text != "optedin" && text != "optedout" && text != "optunknown") {
            level.Problem("privacyDefault", privacy->dump() +
                                                " is not one of \"optedin\", \"optedout\", \"optunknown\" (exact, "
                                                "lower case); the library uses OptIn");
        } else if (text == "optunknown" && !config.offlineEnabled) {
            level.Problem("privacyDefault",
                          "\"optunknown\" needs \"offlineEnabled\": true; the library uses OptIn instead");
        }
    }
    CheckPointsOfInterest(level, level.Find("poi"), config);
    level.UnknownKeys({"rsids", "server", "charset", "ssl", "offlineEnabled", "lifecycleTimeout", "batchLimit",
                       "privacyDefault", "poi"});
}

void CheckVantor(Report& report, const Json* section, const ConfigSettings& config) {
    Level level(report, section, "vantor", "zero: no \"vantor\" section");
    level.Field("clientCode", Expect::kString, Quote(config.vantorClientCode),
                "the first label of the offer service's host, and part of its path");
    const bool label = std::all_of(config.vantorClientCode.begin(), config.vantorClientCode.end(),
                                   [](unsigned char c) { return std::isalnum(c) || c == '-'; });
    if (!label) {
        level.Problem("clientCode", Quote(config.vantorClientCode) + " cannot be the first label of the host name " +
                                        Quote(config.vantorClientCode + kVantorHostSuffix) +
                                        "; use letters, digits and \"-\" only");
    }
    level.Field("timeout", Expect::kNumber, std::to_string(config.vantorTimeout) + " s",
                "how long an offer request may take");
    level.Range("timeout", config.vantorTimeout, kMinVantorTimeout, kMaxVantorTimeout, " seconds",
                "0 or less gives every offer request its default content at once, without asking the service",
                "an offer's future may wait that long before it yields the default content");
    level.UnknownKeys({"clientCode", "timeout"});
}

void CheckCohorta(Report& report, const Json* section, const ConfigSettings& config) {
    Level level(report, section, "cohorta", "zero: no \"cohorta\" section");
    level.Field("server", Expect::kString, Quote(config.cohortaServer), "the audience service's host");
    if (auto problem = ServerProblem(config.cohortaServer, "signals always use http://"); !problem.empty()) {
        level.Problem("server", problem);
    }
    level.UnknownKeys({"server"});
}

// Which modules the file turns on, and where each sends.
void CheckModules(Report& report, const ConfigSettings& config) {
    ModuleGates gates(config);
    if (gates.Analytics()) {
        report.lines.push_back("analytics: on; hits go to " + BaseUrl(config));
    } else if (config.analyticsSection) {
        std::string missing = config.rsids.empty() && config.server.empty() ? "\"rsids\" and \"server\" are"
                              : config.rsids.empty()                        ? "\"rsids\" is"
                                                                            : "\"server\" is";
        report.problems.push_back("analytics: off, because " + missing +
                                  " empty; every tracking call is dropped with a warning");
    }
    if (gates.Vantor()) {
        report.lines.push_back("vantor: on; offer requests go to http://" + config.vantorClientCode + kVantorHostSuffix +
                               "/m2/" + config.vantorClientCode + "/ubox/raw");
    } else if (config.vantorSection) {
        report.problems.push_back("vantor: off, because \"clientCode\" is empty; offer requests yield the empty string");
    } else {
        report.lines.push_back("vantor: off (no section); offer requests yield the empty string");
    }
    if (gates.Cohorta()) {
        report.lines.push_back("cohorta: on; signals go to http://" + config.cohortaServer + "/event?");
    } else if (config.cohortaSection) {
        report.problems.push_back("cohorta: off, because \"server\" is empty; signals yield no profile");
    } else {
        report.lines.push_back("cohorta: off (no section); signals yield no profile");
    }
}

const Json* Section(Report& report, const Json& root, const char* name) {
    auto it = root.find(name);
    if (it == root.end()) {
        if (std::string(name) == "analytics") {
            report.problems.push_back(
                "analytics: no section; nothing is measured and the privacy status is none of OptIn, OptOut, Unknown");
        }
        return nullptr;
    }
    if (!it->is_object()) {
        report.problems.push_back(std::string(name) + ": the file has " + Describe(*it) +
                                  ", not an object; the library treats the section as absent");
        return nullptr;
    }
    return &*it;
}

std::string StripByteOrderMark(const std::string& text) {
    return text.rfind("\xEF\xBB\xBF", 0) == 0 ? text.substr(3) : text;
}

bool ValidVersion(const std::string& text) {
    if (text.empty() || text.back() == '.') return false;
    std::stringstream stream(text);
    std::string piece;
    int parts = 0;
    while (std::getline(stream, piece, '.')) {
        if (piece.empty() || piece.size() > 5 || !std::all_of(piece.begin(), piece.end(), ::isdigit) ||
            std::stoi(piece) > 65535) {
            return false;
        }
        ++parts;
    }
    return parts == 4;
}

}  // namespace

Report CheckConfigText(const std::string& text) {
    Report report;
    ScratchSettings settings;
    CapturedLog captured;
    const auto config = ParseConfig(text, settings.Store(), captured.log);
    if (!config) {
        std::string detail;
        try {
            const Json root = Json::parse(StripByteOrderMark(text));
            detail = "the top level is " + Describe(root);
        } catch (const Json::parse_error& e) {
            detail = e.what();
        }
        report.problems.push_back("VelmoraConfig.json: not a JSON object (" + detail +
                                  "); the library ignores the whole file and every module stays off");
    } else {
        const Json root = Json::parse(StripByteOrderMark(text));
        Level top(report, &root, "", "");
        top.Field("version", Expect::kString, Quote(config->version));
        top.UnknownKeys({"version", "analytics", "vantor", "cohorta"});
        CheckAnalytics(report, Section(report, root, "analytics"), *config);
        CheckVantor(report, Section(report, root, "vantor"), *config);
        CheckCohorta(report, Section(report, root, "cohorta"), *config);
        CheckModules(report, *config);
    }
    for (const auto& line : captured.lines) report.lines.push_back("library log: " + line);
    return report;
}

void CheckManifest(const std::filesystem::path& packageDirectory, Report& report) {
    const auto path = packageDirectory / "AppxManifest.xml";
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        report.lines.push_back(
            "AppxManifest.xml: absent; the application name is \"Unknown\" and its version 0.0.0 unless the "
            "application sets HostOptions::applicationName and applicationVersion");
        return;
    }
    CapturedLog captured;
    ScratchSettings settings;
    ConfigSettings config;
    SystemClock clock;  // no request is made: the manifest is all that is read
    HttpClient http({}, clock);
    HostOptions host;
    host.packageDirectory = packageDirectory;
    DeviceContext device(host, config, settings.Store(), http, captured.log);
    report.lines.push_back("AppxManifest.xml: name " + Quote(device.GetApplicationName()) + ", version " +
                           device.GetApplicationVersion() + ", build " + device.GetApplicationBuild() +
                           "; hits carry a.AppID " + Quote(device.GetApplicationId()));
    for (const auto& line : captured.lines) report.problems.push_back("AppxManifest.xml: the library logs " + Quote(line));

    pugi::xml_document manifest;
    if (!manifest.load_file(path.c_str())) return;  // the library's own line says why
    const pugi::xml_node identity = manifest.select_node("//Identity").node();
    if (!identity) {
        report.problems.push_back("AppxManifest.xml: Identity: no such element; the version is 0.0.0");
    } else if (const std::string version = identity.attribute("Version").as_string(); !ValidVersion(version)) {
        report.problems.push_back("AppxManifest.xml: Identity@Version: " + Quote(version) +
                                  " is not Major.Minor.Build.Revision (four numbers up to 65535); unreadable parts "
                                  "count as 0");
    }
}

int RunCheck(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err) {
    static const char* kUsage =
        "usage: velmora-check [DIR | FILE]\n"
        "       velmora-check --version\n"
        "Explains what the Velmora library makes of a VelmoraConfig.json: for every key the value it uses\n"
        "and why (from the file, or the default because the key is absent or of the wrong type), and\n"
        "each problem on its own line. DIR (default: the current directory) means DIR/VelmoraConfig.json;\n"
        "DIR/AppxManifest.xml is read too when present.\n"
        "Exit status: 0 nothing wrong, 1 problems found, 2 usage error.\n";
    std::vector<std::string> paths;
    for (const auto& argument : arguments) {
        if (argument == "--help" || argument == "-h") {
            out << kUsage;
            return 0;
        }
        if (argument == "--version") {
            out << "velmora-check " << VELMORA_VERSION_STRING << "\n";
            return 0;
        }
        if (argument.size() > 1 && argument[0] == '-') {
            err << "velmora-check: unknown option " << argument << "\n" << kUsage;
            return 2;
        }
        paths.push_back(argument);
    }
    if (paths.size() > 1) {
        err << "velmora-check: give one directory or file\n" << kUsage;
        return 2;
    }
    const std::filesystem::path target = paths.empty() ? "." : paths.front();
    std::error_code error;
    if (!std::filesystem::exists(target, error)) {
        err << "velmora-check: " << target.string() << ": no such file or directory\n";
        return 2;
    }
    const bool directory = std::filesystem::is_directory(target, error);
    const auto file = directory ? target / kConfigFileName : target;
    const auto packageDirectory = directory ? target : std::filesystem::absolute(target, error).parent_path();

    Report report;
    std::ifstream stream(file, std::ios::binary);
    out << "velmora-check: " << file.string() << "\n";
    if (!stream) {
        report.problems.push_back(std::string(kConfigFileName) + ": cannot be read at " + file.string() +
                                  "; the library logs \"Config - Unable to find local VelmoraConfig.json file\" "
                                  "and every module stays off");
    } else {
        std::ostringstream text;
        text << stream.rdbuf();
        report = CheckConfigText(text.str());
        if (!directory && file.filename() != kConfigFileName) {
            report.lines.push_back("note: the library reads only a file named " + std::string(kConfigFileName));
        }
    }
    CheckManifest(packageDirectory, report);

    for (const auto& line : report.lines) out << "  " << line << "\n";
    for (const auto& problem : report.problems) out << "problem: " << problem << "\n";
    if (report.problems.empty()) {
        out << "no problems found\n";
    } else {
        out << report.problems.size() << (report.problems.size() == 1 ? " problem\n" : " problems\n");
    }
    return report.Status();
}

}  // namespace velmora::check
