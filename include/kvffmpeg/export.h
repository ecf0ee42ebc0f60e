#pragma once

/// \file
/// What the shared library exports, for its own headers.

/// Marks what the shared library exports. Everything else in it is hidden.
#define KVFFMPEG_EXPORT __attribute__((visibility("default")))
/// Marks a nested class of an exported one that is not itself exported.
#define KVFFMPEG_INTERNAL __attribute__((visibility("hidden")))
