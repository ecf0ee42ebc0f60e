#pragma once

#include <vector>

#include "kvffmpeg/picture.h"
#include "kvffmpeg/scaler.h"

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/rational.h>
}

namespace kvffmpeg::tool {

/// Writes pictures to standard output as a YUV4MPEG2 stream: planar 8-bit 4:2:0, 4:2:2 or 4:4:4 behind one
/// line of text. The first picture decides on size, format and colour range; later ones are converted.
class Y4mStream {
public:
    /// What pictures do not know of themselves.
    struct Properties {
        AVRational rate{25, 1};                              ///< Pictures per second.
        AVRational pixelShape{0, 0};                         ///< Width to height; 0:0 where it is not known.
        AVChromaLocation chroma = AVCHROMA_LOC_UNSPECIFIED;  ///< Of the track, if it is 4:2:0.
    };

    /// `algorithm` scales pictures of other sizes than the first one.
    Y4mStream(const Properties& properties, Scaler::ScalingAlgorithm algorithm);

    /// @throws BrokenPipe; Interrupted; std::runtime_error, also for formats that cannot be converted.
    void write(const Picture& picture);

private:
    void writeHeader();
    Picture converted(const Picture& picture);
    void append(const Picture& picture);

    Properties properties_;
    Scaler scaler_;
    rect_size_t size_;  ///< Of the first picture, as are the next two.
    AVPixelFormat format_ = AV_PIX_FMT_NONE;
    AVColorRange range_ = AVCOL_RANGE_UNSPECIFIED;
    std::vector<unsigned char> bytes_;  ///< To be written.
};

}  // namespace kvffmpeg::tool
