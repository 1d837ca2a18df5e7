#pragma once

#include <velmora/Config.h>
#include <velmora/Host.h>
#include <velmora/Types.h>

#include <velmora/Analytics.h>
#include <velmora/Cohorta.h>
