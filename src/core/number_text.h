#pragma once

#include <string>

namespace velmora {

// What printf's "%.<decimals>f" gives in the "C" locale ("nan", "-nan", "inf" and "-inf" included),
// whatever locale the application has set: numbers on the wire and in files always use a dot.
std::string FixedText(double value, int decimals);

}  // namespace velmora
