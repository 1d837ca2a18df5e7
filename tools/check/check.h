#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace velmora::check {

// Bounds outside of which a number is reported. The library takes any value; these are the ones
// that make sense (docs/configuration.md explains each).
inline constexpr int kMaxBatchLimit = 1000;          // hits kept back before the sender starts
inline constexpr int kMaxLifecycleTimeout = 86400;   // seconds a pause may last and still resume
inline constexpr int kMinVantorTimeout = 1;          // seconds; 0 or less sends no offer request at all
inline constexpr int kMaxVantorTimeout = 60;

// What velmora-check says about one package directory: for every key, the value the library
// will use and where it comes from, and the problems, each on its own line naming its key.
struct Report {
    std::vector<std::string> lines;
    std::vector<std::string> problems;

    int Status() const { return problems.empty() ? 0 : 1; }
};

// Reads a "VelmoraConfig.json" text with the library's own parser and explains the result.
Report CheckConfigText(const std::string& text);

// Adds what the library makes of `packageDirectory`/AppxManifest.xml (name, version, application
// id), read by the library's own code; a missing manifest is a note, not a problem.
void CheckManifest(const std::filesystem::path& packageDirectory, Report& report);

// The command line: velmora-check [--help] [DIR|FILE]. Writes the report to `out` and usage
// errors to `err`; returns the exit status (0 clean, 1 problems, 2 usage).
int RunCheck(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err);

}  // namespace velmora::check
