#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/temporary_folder.h"
#include "support/tool_process.h"

namespace kvffmpeg::test {

/// Makes media for the command-line tool, in a folder of its own for each test.
class ToolFixture : public testing::Test {
protected:
    /// 20 pictures, 10 a second, 64x48, each of one gray that tells its number, and two seconds of MPEG audio
    /// at 48 kHz. `options` are for the ffmpeg command.
    std::string makeClip(const std::string& name,
                         const std::string& options = "-c:v mpeg4 -q:v 2 -g 5") const;
    /// Half a second of PCM at 8 kHz.
    std::string makeSound(const std::string& name, const std::string& options = "") const;
    /// A second of MPEG audio in Matroska, with a packet whose header is damaged.
    std::string makeDamagedSound(const std::string& name) const;
    std::string makeFolder(const std::string& name) const;
    std::string file(const std::string& name) const { return folder_.file(name); }

private:
    TemporaryFolder folder_;
};

/// Which picture of `makeClip` a PNG or JPEG file holds; -1 for none.
int numberOfPicture(const std::string& path);
/// The same for all files of a folder, in the order of their names.
std::vector<int> numbersOfPictures(const std::string& folder);

/// The names of the files in a folder, sorted.
std::vector<std::string> namesIn(const std::string& folder);
std::vector<std::string> linesOf(const std::string& text);

/// Expects `text` behind "kvffmpeg: " as the only line on stderr, and nothing on stdout.
void expectRefusal(const Result& result, int exitCode, const std::string& text);

}  // namespace kvffmpeg::test
