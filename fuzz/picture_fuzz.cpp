// The input as a picture file, which libavformat probes by its contents and, where it has one, by its name's
// end.

#include "fuzz_support.h"

namespace kvffmpeg {
namespace {

using fuzz::mayThrow;

void load(const std::string& path) {
    mayThrow([&] {
        const Frame frame = loadPictureAsFrame(path);
        const Picture& picture = frame.picture();
        if (picture.empty()) return;
        KVFFMPEG_FUZZ_REQUIRE(picture.width() > 0 && picture.height() > 0);
        KVFFMPEG_FUZZ_REQUIRE(picture.buffer()->size() >= picture.getVideoBufferSize());
        KVFFMPEG_FUZZ_REQUIRE(!picture.debugDescription().empty());
        const rect_size_t half{picture.width() / 2, picture.height() / 2};
        const Picture part = picture.crop({half.w, half.h, half.w, half.h});
        // Scaling is slow, and what it is to find is in small pictures too.
        if (picture.width() > 512 || picture.height() > 512) return;
        Picture copy = Scaler().scale(picture, {33, 17}, AV_PIX_FMT_YUVA420P, AVCOL_RANGE_MPEG);
        if (!copy.empty()) copy.makeEditable();
    });
}

/// A second name of the file, which ends like that of a picture.
class NamedLink {
public:
    NamedLink(const std::string& target, const char* ending)
        : path_("/dev/shm/kvffmpeg-fuzz-" + std::to_string(::getpid()) + ending),
          made_(::symlink(target.c_str(), path_.c_str()) == 0) {}
    NamedLink(const NamedLink&) = delete;
    NamedLink& operator=(const NamedLink&) = delete;
    ~NamedLink() {
        if (made_) ::unlink(path_.c_str());
    }

    bool made() const { return made_; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
    bool made_;
};

}  // namespace
}  // namespace kvffmpeg

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kvffmpeg;
    static const bool prepared = fuzz::prepare();
    (void)prepared;
    const fuzz::MemoryFile file(data, size);
    load(file.path());
    static constexpr std::array<const char*, 8> endings = {".png", ".jpg", ".bmp", ".tga",
                                                           ".pcx", ".ppm", ".tif", ".xbm"};
    // Without a place for links only the contents are probed.
    const NamedLink link(file.path(), endings[(size == 0 ? 0U : data[size - 1]) % endings.size()]);
    if (link.made()) load(link.path());
    return 0;
}
