#pragma once

/// \file
/// Everything that kvffmpeg offers. Each header can also be included alone.

/// \namespace kvffmpeg
/// All that the library offers, but for the log bridge of logging.h and FFmpeg's callback `interrupt_cb`.
///
/// Failures that a caller must handle are std::runtime_error with a short text, thrown before anything has
/// changed unless said otherwise; want of memory is std::bad_alloc. One thread at a time may use an object,
/// where nothing else is said. Positions and sizes are in pixels, times in ticks of their `Timebase`, mostly
/// microseconds.

#include "kvffmpeg/audio_resampler.h"
#include "kvffmpeg/audiobuffer.h"
#include "kvffmpeg/blending.h"
#include "kvffmpeg/chromakey.h"
#include "kvffmpeg/color.h"
#include "kvffmpeg/draw_utils.h"
#include "kvffmpeg/ffdraw.h"
#include "kvffmpeg/filtering.h"
#include "kvffmpeg/format_context.h"
#include "kvffmpeg/frame.h"
#include "kvffmpeg/freetype_rendering.h"
#include "kvffmpeg/geometry.h"
#include "kvffmpeg/image_utils.h"
#include "kvffmpeg/logging.h"
#include "kvffmpeg/memory.h"
#include "kvffmpeg/packet.h"
#include "kvffmpeg/picture.h"
#include "kvffmpeg/scaler.h"
#include "kvffmpeg/text_rendering.h"
#include "kvffmpeg/timestamp.h"
#include "kvffmpeg/utils.h"
