#pragma once

/// @file
/// Symbol visibility of the public classes.

#if defined(VELMORA_STATIC_DEFINE)
#define VELMORA_API
#else
/// Marks a public class as exported from the shared library; empty when `VELMORA_STATIC_DEFINE` is
/// defined, as the `velmora::velmora_static` target does for its users.
#define VELMORA_API __attribute__((visibility("default")))
#endif
