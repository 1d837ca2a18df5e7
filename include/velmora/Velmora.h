#pragma once

#include <velmora/Config.h>
#include <velmora/Host.h>
#include <velmora/Types.h>

// Analytics
#include <velmora/Analytics.h>

// Audience
#include <velmora/Cohorta.h>
