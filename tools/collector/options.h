#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace velmora::collector {

// What the command line can change; the defaults make a collector on loopback that accepts
// every hit at once.
struct CollectorOptions {
    std::string host = "127.0.0.1";
    int port = 8765;                   // 0: any free port
    bool json = false;                 // one JSON object per line instead of readable blocks
    int hitStatus = 200;               // status every hit is answered with
    int hitDelayMillis = 0;            // wait before answering a hit
    std::string aid = "3F1A2B3C4D5E6F70-1A2B3C4D5E6F7081";
    std::string offerContent = "Offer content from velmora-collector";
    std::string pcId = "collector-pc-0001";             // issued when the request brings none
    std::string sessionId = "collector-session-0001";   // likewise
    std::string uuid = "collector-user-0001";
    std::vector<std::string> destinations;
    std::size_t keep = 10000;          // hits kept for the page and /hits.json
    bool help = false;
    bool version = false;
};

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads the arguments after the program name. Throws UsageError for an unknown flag, a missing
// value or a value out of range.
CollectorOptions ParseArguments(const std::vector<std::string>& arguments);

std::string UsageText();

}  // namespace velmora::collector
