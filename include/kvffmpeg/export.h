#pragma once

/// Marks what the shared library exports. Everything else in it is hidden.
#define KVFFMPEG_EXPORT __attribute__((visibility("default")))
