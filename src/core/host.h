#pragma once

#include "core/log.h"

#include <velmora/Host.h>

#include <string>

namespace velmora {

using Velmora::HostOptions;

// Fills in what the application left empty: directories from the environment or the executable,
// connect-to entries from $VELMORA_CONNECT_TO.
HostOptions ResolveHostOptions(HostOptions options);

// BCP 47 tag of the user's language: the host's override, else LC_ALL / LC_MESSAGES / LANG
// ("de_DE.UTF-8" gives "de-DE"; "C", "POSIX" or nothing give "en-US").
std::string LanguageTag(const HostOptions& options);
std::string LanguageTagFromLocale(const char* locale);

// The connection-profile check: the host's callback, else whether the kernel has a route off the
// host (RouteMonitor, one for the process). Cheap enough to ask before every send; never throws:
// a check that fails is logged and counts as a connection.
bool InternetAvailable(const HostOptions& options, const Logger& log);

}  // namespace velmora
