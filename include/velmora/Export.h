#pragma once

#if defined(VELMORA_STATIC_DEFINE)
#define VELMORA_API
#else
#define VELMORA_API __attribute__((visibility("default")))
#endif
