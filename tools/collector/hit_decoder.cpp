#include "hit_decoder.h"

#include <cstddef>

namespace velmora::collector {
namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        std::size_t end = text.find(separator, start);
        if (end == std::string_view::npos) {
            parts.push_back(text.substr(start));
            return parts;
        }
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

std::string Join(const std::vector<std::string>& path, std::size_t from, const std::string& last) {
    std::string key;
    for (std::size_t i = from; i < path.size(); ++i) key += path[i] + ".";
    return key + last;
}

// Walks the parameters between the framing, keeping the stack of open groups.
class QueryWalker {
public:
    explicit QueryWalker(Hit& hit) : hit_(hit) {}

    void Take(std::string_view parameter) {
        if (parameter.empty()) throw MalformedRequest("empty parameter between \"&&\"");
        std::size_t equals = parameter.find('=');
        if (equals != std::string_view::npos) {
            Entry(PercentDecode(parameter.substr(0, equals)), PercentDecode(parameter.substr(equals + 1)));
        } else if (parameter.size() > 1 && parameter.front() == '.' && ClosesInnermost(parameter.substr(1))) {
            groups_.pop_back();
        } else if (parameter.size() > 1 && parameter.back() == '.') {
            // Dots are never escaped, so ".x." may open ".x" or close "x."; the open groups decide.
            groups_.push_back(PercentDecode(parameter.substr(0, parameter.size() - 1)));
        } else if (parameter.size() > 1 && parameter.front() == '.') {
            Close(PercentDecode(parameter.substr(1)));
        } else {
            throw MalformedRequest("parameter without \"=\": \"" + std::string(parameter) + "\"");
        }
    }

    void Finish() const {
        if (!groups_.empty()) throw MalformedRequest("group \"" + groups_.back() + "\" is never closed");
    }

private:
    void Entry(const std::string& name, std::string value) {
        if (name.empty()) throw MalformedRequest("parameter with an empty name");
        if (groups_.empty()) {
            hit_.variables[name] = std::move(value);
        } else if (groups_.front() == "c") {
            hit_.contextData[Join(groups_, 1, name)] = std::move(value);
        } else {
            hit_.variables[Join(groups_, 0, name)] = std::move(value);
        }
    }

    bool ClosesInnermost(std::string_view name) const {
        return !groups_.empty() && PercentDecode(name) == groups_.back();
    }

    void Close(const std::string& name) {
        if (groups_.empty()) throw MalformedRequest("\"." + name + "\" closes a group that was never opened");
        if (groups_.back() != name) {
            throw MalformedRequest("\"." + name + "\" closes group \"" + groups_.back() + "\"");
        }
        groups_.pop_back();
    }

    Hit& hit_;
    std::vector<std::string> groups_;
};

bool AllDigits(std::string_view text) {
    if (text.empty()) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

}  // namespace

std::string PercentDecode(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        int high = i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
        int low = i + 2 < text.size() ? HexValue(text[i + 2]) : -1;
        if (high < 0 || low < 0) {
            throw MalformedRequest("broken percent-encoding in \"" + std::string(text) + "\"");
        }
        decoded.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return decoded;
}

Hit DecodeHit(std::string_view target) {
    std::size_t question = target.find('?');
    if (question == std::string_view::npos) throw MalformedRequest("hit without a query string");
    std::string_view path = target.substr(0, question);
    std::string_view query = target.substr(question + 1);

    // "", "b", "ss", rsids, "0", platform, "s<digits>"
    auto segments = Split(path, '/');
    if (segments.size() != 7 || !segments[0].empty() || segments[1] != "b" || segments[2] != "ss" ||
        segments[3].empty() || segments[4] != "0" || segments[5].empty()) {
        throw MalformedRequest("hit path is not /b/ss/<report suites>/0/<platform>/s<number>");
    }
    if (segments[6].size() < 2 || segments[6][0] != 's' || !AllDigits(segments[6].substr(1))) {
        throw MalformedRequest("hit path does not end in s<number>");
    }
    Hit hit;
    hit.reportSuites = PercentDecode(segments[3]);
    hit.platform = PercentDecode(segments[5]);
    hit.cacheBuster = std::string(segments[6].substr(1));

    auto parameters = Split(query, '&');
    if (parameters.size() < 2 || parameters.front() != "AQB=1" || parameters.back() != "AQE=1") {
        throw MalformedRequest("query is not framed by AQB=1 ... AQE=1");
    }
    std::size_t first = 1;
    // The library always sends "ndh=1" right after the opening; it is framing, not data.
    if (parameters.size() > 2 && parameters[1] == "ndh=1") first = 2;
    QueryWalker walker(hit);
    for (std::size_t i = first; i + 1 < parameters.size(); ++i) walker.Take(parameters[i]);
    walker.Finish();
    return hit;
}

QueryPairs ParseQuery(std::string_view query) {
    QueryPairs pairs;
    if (query.empty()) return pairs;
    for (std::string_view parameter : Split(query, '&')) {
        if (parameter.empty()) continue;
        std::size_t equals = parameter.find('=');
        if (equals == std::string_view::npos) {
            pairs.emplace_back(PercentDecode(parameter), std::string());
        } else {
            pairs.emplace_back(PercentDecode(parameter.substr(0, equals)), PercentDecode(parameter.substr(equals + 1)));
        }
    }
    return pairs;
}

}  // namespace velmora::collector
