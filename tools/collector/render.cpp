#include "render.h"

#include "core/utf8.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <optional>

namespace velmora::collector {
namespace {

std::optional<std::int64_t> NumericTimestamp(const StringMap& variables) {
    auto ts = variables.find("ts");
    if (ts == variables.end() || ts->second.empty() || ts->second.size() > 12) return std::nullopt;
    std::size_t start = ts->second[0] == '-' ? 1 : 0;
    if (start == ts->second.size()) return std::nullopt;
    for (std::size_t i = start; i < ts->second.size(); ++i) {
        if (ts->second[i] < '0' || ts->second[i] > '9') return std::nullopt;
    }
    return std::stoll(ts->second);
}

// Width in characters, counting each UTF-8 sequence once.
std::size_t DisplayWidth(std::string_view text) {
    std::size_t width = 0;
    for (char c : text) width += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return width;
}

void AppendSection(std::string& out, const char* title, const StringMap& entries) {
    out += std::string("  ") + title + (entries.empty() ? " (none)\n" : "\n") + AlignedEntries(entries, 4);
}

}  // namespace

std::string AlignedEntries(const StringMap& entries, std::size_t indent) {
    std::size_t width = 0;
    for (const auto& [key, value] : entries) width = std::max(width, DisplayWidth(Printable(key)));
    std::string out;
    for (const auto& [key, value] : entries) {
        std::string shown = Printable(key);
        out += std::string(indent, ' ') + shown + std::string(width - DisplayWidth(shown), ' ') + " = " +
               Printable(value) + "\n";
    }
    return out;
}

std::string FormatUtc(std::int64_t millis) {
    std::time_t seconds = static_cast<std::time_t>(millis / 1000 - (millis % 1000 < 0 ? 1 : 0));
    std::tm fields{};
    if (!gmtime_r(&seconds, &fields)) return "?";
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &fields);
    return text;
}

std::string Printable(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    for (char c : ToValidUtf8(std::string(text))) {
        auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            shown += "\\n";
        } else if (c == '\t') {
            shown += "\\t";
        } else if (c == '\\') {
            shown += "\\\\";
        } else if (byte < 0x20 || byte == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            shown += escaped;
        } else {
            shown.push_back(c);
        }
    }
    return shown;
}

nlohmann::json HitJson(const ReceivedHit& hit) {
    nlohmann::json json{
        {"kind", "hit"},
        {"id", hit.id},
        {"received", FormatUtc(hit.receivedMillis)},
        {"status", hit.status},
        {"reportSuites", hit.hit.reportSuites},
        {"platform", hit.hit.platform},
        {"cacheBuster", hit.hit.cacheBuster},
        {"variables", hit.hit.variables},
        {"contextData", hit.hit.contextData},
        {"url", hit.url},
    };
    if (auto ts = NumericTimestamp(hit.hit.variables)) json["ts"] = *ts;
    return json;
}

std::string HitBlock(const ReceivedHit& hit) {
    std::string out = "hit #" + std::to_string(hit.id) + "  received " + FormatUtc(hit.receivedMillis) +
                      "  answered " + std::to_string(hit.status) + "\n";
    out += "  report suite " + Printable(hit.hit.reportSuites) + "  (" + Printable(hit.hit.platform) +
           ", s" + hit.hit.cacheBuster + ")\n";
    if (auto ts = NumericTimestamp(hit.hit.variables)) {
        out += "  ts           " + std::to_string(*ts) + " (" + FormatUtc(*ts * 1000) + ")\n";
    }
    AppendSection(out, "variables", hit.hit.variables);
    AppendSection(out, "context data", hit.hit.contextData);
    out += "\n";
    return out;
}

std::string JsonLine(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace velmora::collector
