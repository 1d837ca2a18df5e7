#pragma once

/// @file
/// The whole public API in one include.

#include <velmora/Analytics.h>
#include <velmora/Cohorta.h>
#include <velmora/Config.h>
#include <velmora/Host.h>
#include <velmora/Media.h>
#include <velmora/Types.h>
#include <velmora/Vantor.h>
