#include "core/utf8.h"

#include <cstddef>

namespace velmora {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// The length of the well-formed sequence that starts at `at`; or, negated, the length of the
// maximal subpart to replace: the bytes that could still have begun a valid sequence, at least one.
std::ptrdiff_t Sequence(std::string_view text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) return 1;
    std::size_t trailing;
    unsigned char low = 0x80, high = 0xBF;  // the range allowed for the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        trailing = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        trailing = 2;
        if (lead == 0xE0) low = 0xA0;   // overlong below U+0800
        if (lead == 0xED) high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        trailing = 3;
        if (lead == 0xF0) low = 0x90;   // overlong below U+10000
        if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
    } else {
        return -1;  // a continuation byte, C0, C1 or F5 to FF
    }
    std::size_t length = 1;
    for (; length <= trailing; ++length) {
        if (at + length >= text.size()) return -static_cast<std::ptrdiff_t>(length);
        const auto next = static_cast<unsigned char>(text[at + length]);
        if (next < low || next > high) return -static_cast<std::ptrdiff_t>(length);
        low = 0x80, high = 0xBF;
    }
    return static_cast<std::ptrdiff_t>(length);
}

// Where the first ill-formed sequence starts; the size of `text` when there is none.
std::size_t FirstInvalid(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size()) {
        const std::ptrdiff_t length = Sequence(text, at);
        if (length < 0) return at;
        at += static_cast<std::size_t>(length);
    }
    return at;
}

}  // namespace

bool IsValidUtf8(std::string_view text) { return FirstInvalid(text) == text.size(); }

std::string ToValidUtf8(std::string text) {
    std::size_t at = FirstInvalid(text);
    if (at == text.size()) return text;
    std::string valid(text, 0, at);
    valid.reserve(text.size() + 8);
    while (at < text.size()) {
        const std::ptrdiff_t length = Sequence(text, at);
        if (length < 0) {
            valid += kReplacement;
            at += static_cast<std::size_t>(-length);
        } else {
            valid.append(text, at, static_cast<std::size_t>(length));
            at += static_cast<std::size_t>(length);
        }
    }
    return valid;
}

}  // namespace velmora
