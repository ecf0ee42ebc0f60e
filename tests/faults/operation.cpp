#include "operation.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "support/media.h"

extern "C" {
#include <libavutil/samplefmt.h>
}

namespace kvffmpeg::faults {

Digest& Digest::add(Timestamp time) noexcept {
    add(static_cast<std::uint64_t>(time.is_nil() ? 1 : 0));
    if (!time.is_nil()) add(static_cast<std::uint64_t>(time.value()));
    return *this;
}

Digest& Digest::add(const Picture& picture) {
    add(static_cast<std::uint64_t>(picture.pixelFormat()))
        .add(static_cast<std::uint64_t>(picture.colorRange()));
    add(picture.debugDescription());
    const std::vector<std::uint8_t> bytes = test::visibleBytes(picture);
    return add(bytes.data(), bytes.size());
}

Digest& Digest::add(const AudioBuffer& audio) {
    add(audio.debugDescription());
    const auto bytesOfSample = static_cast<std::size_t>(av_get_bytes_per_sample(audio.sampleFormat()));
    const bool planar = av_sample_fmt_is_planar(audio.sampleFormat()) != 0;
    const std::size_t channels = planar ? 1 : static_cast<std::size_t>(audio.numberOfChannels());
    for (const std::uint8_t* plane : audio.getPointersToPlanes()) {
        if (plane) add(plane, bytesOfSample * channels * static_cast<std::size_t>(audio.readableSamples()));
    }
    return *this;
}

Digest& Digest::add(const Frame& frame) {
    return add(frame.picture()).add(frame.audioBuffer()).add(frame.PTS());
}

Digest& Digest::add(const Packet& packet) noexcept {
    add(std::uint64_t{packet.streamIndex()}).add(static_cast<std::uint64_t>(packet.pts()));
    add(static_cast<std::uint64_t>(packet.dts())).add(static_cast<std::uint64_t>(packet.duration()));
    add(static_cast<std::uint64_t>(packet.flags()));
    return add(packet.data, static_cast<std::size_t>(packet.size()));
}

bool goesThrough(const std::function<void()>& action) {
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("cannot fork");
    if (child == 0) {
        try {
            action();
        } catch (...) {
            _exit(1);
        }
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace kvffmpeg::faults
