#pragma once

#include <string>

#include "kvffmpeg/export.h"
#include "kvffmpeg/frame.h"
#include "kvffmpeg/picture.h"
#include "kvffmpeg/timestamp.h"

/// \file
/// One picture from and to a file.

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kvffmpeg {

/// Loads the picture of the first packet of a file, or of any URL that libavformat opens, with its time in
/// microseconds (0 for a still). The frame is empty when the packet does not decode or there is none.
///
/// What a few bytes claim or unpack to is not believed beyond bounds: a picture of more than 250 MB (83 MB
/// for JPEG) does not decode when it is more than 64 times as large as its packet, blank ones that
/// `savePicture` wrote included; a `FormatContext` has no such bound. Large pictures are held in memory once.
///
/// `path` is trusted input: libavformat takes it as a URL, and a name such as "b%03d.png" as a numbered
/// series.
/// @throws std::runtime_error "can't open input file", or FFmpeg's text when reading fails.
KVFFMPEG_EXPORT Frame loadPictureAsFrame(const std::string& path);
/// The picture of `loadPictureAsFrame(path)`, which throws what that throws. Empty when nothing decodes.
KVFFMPEG_EXPORT Picture loadPicture(const std::string& path);

/// Encodes the picture and writes the encoder's one packet, without a container around it, to `path` (trusted
/// input: a URL). AV_CODEC_ID_NONE chooses the encoder by the name's ending. A picture in a pixel format that
/// the encoder does not take is converted to the first one that it does. An encoder that gives no packet
/// makes an empty file.
/// @throws std::runtime_error, `%s` being the path except where said:
/// "Could not find format for %s" when the ending is not known;
/// "Could not find encoder for %s";
/// "Could not open %s encoder" (the encoder's name), before a file is made;
/// "Could not open output file %s"; "Encoding failed"; "Could not write output file %s".
KVFFMPEG_EXPORT void savePicture(Picture picture, const std::string& path,
                                 AVCodecID codecId = AV_CODEC_ID_NONE);

}  // namespace kvffmpeg
