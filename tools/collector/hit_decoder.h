#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velmora::collector {

using StringMap = std::map<std::string, std::string>;
using QueryPairs = std::vector<std::pair<std::string, std::string>>;

// Thrown for a request the collector cannot make sense of; the text says what is wrong with it.
class MalformedRequest : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One hit as the library sent it: where it went and what it carried.
struct Hit {
    std::string reportSuites;  // comma-separated as in the path
    std::string platform;      // e.g. "WINU-4.0.0"
    std::string cacheBuster;   // the digits after "s"
    StringMap variables;       // top-level query variables, framing left out
    StringMap contextData;     // the context group flattened back into dotted keys
};

// Decodes "%XX" escapes into whatever bytes they name, valid UTF-8 or not: what is shown makes
// them safe, the decoded hit keeps them as sent. A "%" without two hex digits after it is malformed;
// "+" stays "+", because the library encodes blanks as "%20".
std::string PercentDecode(std::string_view text);

// Decodes a hit request target: "/b/ss/<rsids>/0/<platform>/s<digits>?AQB=1&ndh=1...&AQE=1".
// Groups ("&name." ... "&.name") nest; entries inside the top-level "c" group become context data
// keyed by their dotted path, entries inside any other group become variables with that path.
Hit DecodeHit(std::string_view target);

// Splits a query string ("a=1&b=%20") into decoded pairs in their order. Empty parameters are
// skipped; a parameter without "=" has an empty value.
QueryPairs ParseQuery(std::string_view query);

}  // namespace velmora::collector
