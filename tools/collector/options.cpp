#include "options.h"

#include <charconv>

namespace velmora::collector {
namespace {

long long Number(const std::string& flag, const std::string& text, long long low, long long high) {
    long long value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
        throw UsageError(flag + " expects a whole number from " + std::to_string(low) + " to " +
                         std::to_string(high) + ", not \"" + text + "\"");
    }
    return value;
}

}  // namespace

CollectorOptions ParseArguments(const std::vector<std::string>& arguments) {
    CollectorOptions options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& flag = arguments[i];
        auto value = [&]() -> const std::string& {
            if (i + 1 >= arguments.size()) throw UsageError(flag + " needs a value");
            return arguments[++i];
        };
        if (flag == "--help" || flag == "-h") {
            options.help = true;
        } else if (flag == "--version") {
            options.version = true;
        } else if (flag == "--json") {
            options.json = true;
        } else if (flag == "--host") {
            options.host = value();
            if (options.host.empty()) throw UsageError("--host needs an address");
        } else if (flag == "--port") {
            options.port = static_cast<int>(Number(flag, value(), 0, 65535));
        } else if (flag == "--status") {
            options.hitStatus = static_cast<int>(Number(flag, value(), 100, 599));
        } else if (flag == "--delay-ms") {
            options.hitDelayMillis = static_cast<int>(Number(flag, value(), 0, 600000));
        } else if (flag == "--keep") {
            options.keep = static_cast<std::size_t>(Number(flag, value(), 1, 1000000));
        } else if (flag == "--aid") {
            options.aid = value();
        } else if (flag == "--offer-content") {
            options.offerContent = value();
        } else if (flag == "--pc-id") {
            options.pcId = value();
        } else if (flag == "--session-id") {
            options.sessionId = value();
        } else if (flag == "--uuid") {
            options.uuid = value();
        } else if (flag == "--dest") {
            options.destinations.push_back(value());
        } else {
            throw UsageError("unknown argument \"" + flag + "\"");
        }
    }
    return options;
}

std::string UsageText() {
    return "usage: velmora-collector [options]\n"
           "A development collection server: shows the hits an application sends, decoded, in the\n"
           "terminal and on a live web page, and answers identifier, offer and audience requests.\n"
           "\n"
           "  --host ADDRESS        address to listen on (default 127.0.0.1)\n"
           "  --port N              port to listen on, 0 for any free one (default 8765)\n"
           "  --json                print one JSON object per line instead of readable blocks\n"
           "  --status N            answer every hit with status N (default 200)\n"
           "  --delay-ms N          wait N milliseconds before answering a hit\n"
           "  --keep N              hits kept for the page and /hits.json (default 10000)\n"
           "  --aid TEXT            identifier answered at /id\n"
           "  --offer-content TEXT  body of every offer answer\n"
           "  --pc-id TEXT          mboxPC cookie for offer requests that bring none\n"
           "  --session-id TEXT     mboxSession cookie for offer requests that bring none\n"
           "  --uuid TEXT           \"uuid\" of every audience answer\n"
           "  --dest URL            add a destination to every audience answer (repeatable)\n"
           "  --help                show this text\n"
           "  --version             show the program's version\n";
}

}  // namespace velmora::collector
