#include "core/escape.h"

namespace velmora {

std::string EscapeComponent(std::string_view text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(text.size() + text.size() / 2);
    for (unsigned char c : text) {
        bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                          c == '.' || c == '_' || c == '~';
        if (unreserved) {
            escaped.push_back(static_cast<char>(c));
        } else {
            escaped.push_back('%');
            escaped.push_back(kHex[c >> 4]);
            escaped.push_back(kHex[c & 0x0F]);
        }
    }
    return escaped;
}

}  // namespace velmora
