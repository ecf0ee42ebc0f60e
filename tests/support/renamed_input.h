#pragma once

namespace kvffmpeg::test {

/// While one lives, every input that libavformat opens says that its demuxer is named "rawpacket". No FFmpeg
/// release has such a demuxer; it comes with applications' own builds.
class RenamedInputs {
public:
    RenamedInputs();
    ~RenamedInputs();
    RenamedInputs(const RenamedInputs&) = delete;
    RenamedInputs& operator=(const RenamedInputs&) = delete;
};

}  // namespace kvffmpeg::test
