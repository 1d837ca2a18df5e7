#pragma once

#include "core/log.h"
#include "media/media_item.h"

#include <optional>

namespace velmora {

// The context data of the first-play hit of `item` (which has a current snapshot).
StringMap BuildViewHit(MediaItem& item);

// The context data of a media hit for what changed between the item's two snapshots, starting from
// `data`; nothing when the change is not worth a hit and `force` is off. Marks completion as
// reported and records the segment number either way.
std::optional<StringMap> BuildProgressHit(MediaItem& item, StringMap data, bool force);

}  // namespace velmora
