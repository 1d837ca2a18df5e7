#pragma once

/// @file
/// The whole public API in one include.

// One clear line instead of pages of errors from <variant> and <optional>; C programs use <velmora.h>.
#if __cplusplus < 201703L
#error "Velmora needs C++17 or later: compile with -std=c++17 (C programs include <velmora.h>)"
#else
#include <velmora/Analytics.h>
#include <velmora/Cohorta.h>
#include <velmora/Config.h>
#include <velmora/Host.h>
#include <velmora/Media.h>
#include <velmora/Types.h>
#include <velmora/Vantor.h>
#include <velmora/Version.h>
#endif
