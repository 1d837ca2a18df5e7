#pragma once

#include <velmora/Config.h>
#include <velmora/Host.h>
#include <velmora/Types.h>

// Feature classes
#include <velmora/Media.h>
