#pragma once

#include <memory>
#include <string>

#include "kvffmpeg/audiobuffer.h"
#include "kvffmpeg/export.h"
#include "kvffmpeg/frame.h"
#include "kvffmpeg/picture.h"

/// \file
/// Filter graphs given as text.

namespace kvffmpeg {

/// Runs frames through a libavfilter graph that a text describes, such as "scale=640:360,hflip". The graph is
/// built from the first frame, and built anew for another specification and, with video, for another picture
/// size or format. A wrapper serves video or audio, whichever its first graph was built for.
///
/// Specifications are trusted input: filters read and write files, and take memory and time as they are told.
///
/// One thread at a time may use a wrapper; neither copied nor moved. (libavfilter may run threads of its
/// own.)
class KVFFMPEG_EXPORT FFmpegFilterWrapper {
public:
    FFmpegFilterWrapper();   ///< With an empty specification.
    ~FFmpegFilterWrapper();  ///< Frees the graph, with the frames that it holds back.
    FFmpegFilterWrapper(const FFmpegFilterWrapper&) = delete;
    FFmpegFilterWrapper& operator=(const FFmpegFilterWrapper&) = delete;

    /// In FFmpeg's filter-graph syntax; the free input may be labelled "in", the free output "out". With an
    /// empty one every frame comes back as it is. Setting the same text again changes nothing; another one
    /// drops the graph, with the frames that it holds back. Errors in the text show when the next frame is
    /// processed.
    void setFilterSpec(std::string spec);

    /// Pushes a frame into the graph and takes at most one out. The result has the filtered content and its
    /// time, in the input's time base, and nothing else of the input; with a nil input time it has none.
    /// Frames without content, and all frames while the specification is empty, come back as copies.
    ///
    /// The graph takes times for microseconds and gives back plain numbers: what a filter does to the time
    /// base, as "fps" does, is not undone. A filter that holds frames back gives none for some calls (see
    /// below); one that gives several gives them one per later call. A video frame's picture is made
    /// editable.
    /// @throws std::runtime_error, all with the wrapper still usable:
    /// "Filtering source or sink element not found", "Cannot create buffer source", "Cannot create buffer
    /// sink", "Out of memory", "Cannot parse filter spec" and "Cannot configure filter" when the graph is
    /// built, after which it stays unusable until the specification, or a video frame's size or format,
    /// changes; "Picture filtering failed" when it does not take the frame, video or audio, or is unusable;
    /// "Filter is initialized for processing audio" for video frames once the wrapper serves audio, and
    /// "Filter is initialized for processingvideo" (no blank) the other way round;
    /// for audio, when no frame came out, what `AudioBuffer::resize` throws.
    /// @throws std::bad_alloc when memory runs out and, for video, when no frame came out.
    Frame processFrame(Frame& frame);
    Frame processVideoFrame(Frame& frame);  ///< The same for the frame's picture.
    Frame processAudioFrame(Frame& frame);  ///< The same for the frame's audio, also beside a picture.
    /// The same without times. The picture is made editable.
    Picture processPicture(Picture& picture);
    AudioBuffer processAudioBuffer(AudioBuffer& buffer);  ///< The same without times.

private:
    struct State;

    std::unique_ptr<State> state_;
};

}  // namespace kvffmpeg
