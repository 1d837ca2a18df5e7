#pragma once

#include <velmora/Config.h>
#include <velmora/Host.h>
#include <velmora/Types.h>

// Analytics
#include <velmora/Analytics.h>

// Media
#include <velmora/Media.h>
