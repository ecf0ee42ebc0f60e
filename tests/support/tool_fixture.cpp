#include "support/tool_fixture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <stdexcept>

#include "support/media.h"

namespace kvffmpeg::test {

std::string ToolFixture::makeClip(const std::string& name, const std::string& options) const {
    const std::string path = file(name);
    runFFmpeg(
        "-f lavfi -i \"color=black:size=64x48:rate=10:duration=2,format=yuv420p,"
        "geq=lum='16+N*10':cb=128:cr=128\" -f lavfi -i sine=sample_rate=48000:duration=2 -c:a mp2 " +
        options + " " + path);
    return path;
}

std::string ToolFixture::makeSound(const std::string& name, const std::string& options) const {
    const std::string path = file(name);
    runFFmpeg("-f lavfi -i sine=sample_rate=8000:duration=0.5 -bitexact -c:a pcm_s16le " + options + " " +
              path);
    return path;
}

std::string ToolFixture::makeDamagedSound(const std::string& name) const {
    const std::string path = file(name);
    runFFmpeg("-f lavfi -i \"aevalsrc='0.5*sin(2*PI*440*t)':s=48000:d=1\" -c:a mp2 -b:a 128k " + path);
    std::vector<std::uint8_t> bytes = readFile(path);
    // Of MPEG-1 layer 2 with 128 kb/s and 48 kHz, but for the last byte, which tells channels.
    const std::array<std::uint8_t, 3> header{0xff, 0xfd, 0x84};
    auto packet = bytes.begin();
    for (int i = 0; i < 10; ++i) {
        packet = std::search(packet + 1, bytes.end(), header.begin(), header.end());
        if (packet == bytes.end()) throw std::runtime_error("There are too few packets in " + path);
    }
    std::fill_n(packet, header.size(), std::uint8_t{0});
    writeFile(path, bytes);
    return path;
}

std::string ToolFixture::makeFolder(const std::string& name) const {
    std::filesystem::create_directory(file(name));
    return file(name);
}

int numberOfPicture(const std::string& path) {
    const Picture picture = loadPicture(path);
    if (picture.empty()) return -1;
    // Saved pictures have full range: 219 steps of gray have become 255.
    return static_cast<int>(std::lround(picture.getPlanes()[0][0] * 219.0 / 255 / 10));
}

std::vector<int> numbersOfPictures(const std::string& folder) {
    std::vector<int> numbers;
    for (const std::string& name : namesIn(folder)) numbers.push_back(numberOfPicture(folder + "/" + name));
    return numbers;
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

void expectRefusal(const Result& result, int exitCode, const std::string& text) {
    EXPECT_EQ(result.exitCode, exitCode);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "kvffmpeg: " + text + "\n");
}

}  // namespace kvffmpeg::test
