#include "support/media.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace kvffmpeg::test {

std::vector<std::uint8_t> readFFmpeg(const std::string& arguments) {
    const std::string command = std::string(KVFFMPEG_FFMPEG_COMMAND) + " -v error -y -nostdin " + arguments;
    std::FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("cannot run: " + command);
    std::vector<std::uint8_t> output;
    std::array<std::uint8_t, 65536> chunk;
    for (std::size_t count = 0; (count = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0;) {
        output.insert(output.end(), chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(count));
    }
    if (pclose(pipe) != 0) throw std::runtime_error("failed: " + command);
    return output;
}

void runFFmpeg(const std::string& arguments) {
    readFFmpeg(arguments);
}

namespace {

std::string textOf(const std::string& arguments) {
    const std::vector<std::uint8_t> output = readFFmpeg(arguments);
    return {output.begin(), output.end()};
}

}  // namespace

std::string frameRateOption(const std::string& mode) {
    static const bool isNew = textOf("-h long").find("-fps_mode") != std::string::npos;
    return (isNew ? "-fps_mode " : "-vsync ") + mode;
}

bool commandEncodes(const std::string& encoder) {
    static const std::string encoders = textOf("-encoders");
    return encoders.find(" " + encoder + " ") != std::string::npos;
}

bool commandIsOfThisRelease() {
    static const std::string version = textOf("-version");
    return version.rfind(std::string("ffmpeg version ") + av_version_info() + " ", 0) == 0;
}

std::string sampleMedia(const std::string& name) {
    const std::string folder = KVFFMPEG_SAMPLE_MEDIA;
    return folder.empty() ? folder : folder + "/" + name;
}

std::string exampleMedia(const std::string& name) {
    return std::string(KVFFMPEG_EXAMPLE_MEDIA) + "/" + name;
}

std::vector<std::uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

Picture randomPicture(rect_size_t size, AVPixelFormat format, AVColorRange range, int align, unsigned seed) {
    Picture picture(size, format, range, align);
    std::mt19937 random(seed);
    MemBuffer& buffer = *picture.buffer();
    for (std::size_t i = 0; i < buffer.size(); ++i) buffer.data()[i] = static_cast<unsigned char>(random());
    return picture;
}

std::vector<std::uint8_t> visibleBytes(const Picture& picture) {
    if (picture.empty()) return {};
    const int size = av_image_get_buffer_size(picture.pixelFormat(), picture.width(), picture.height(), 1);
    if (size < 0) throw std::runtime_error("visibleBytes: no such picture");
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    const std::uint8_t* planes[4];
    for (int p = 0; p < 4; ++p) planes[p] = picture.getPlanes()[p];
    av_image_copy_to_buffer(bytes.data(), size, planes, picture.getLinesize(), picture.pixelFormat(),
                            picture.width(), picture.height(), 1);
    return bytes;
}

}  // namespace kvffmpeg::test
