#pragma once

#include <cstring>
#include <memory>
#include <vector>

#include "image.h"
#include "kvffmpeg/picture.h"

namespace drawing {

/// Pictures with memory of their own, as users have them; shared by those who draw on them.
using Pictures = std::shared_ptr<std::vector<kvffmpeg::Picture>>;

inline kvffmpeg::Picture pictureOf(const Image& image) {
    kvffmpeg::Picture picture(image.size(), image.format());
    std::memcpy(picture.getPlanes()[0], image.plane(0), image.bytes());
    return picture;
}

/// As `makeFrames`.
inline Pictures makePictures(kvffmpeg::rect_size_t size, AVPixelFormat format) {
    const Image image(size, format, 1);
    auto pictures = std::make_shared<std::vector<kvffmpeg::Picture>>();
    while (pictures->size() < frameCount) pictures->push_back(pictureOf(image));
    return pictures;
}

/// Views of the pictures.
inline Frames framesOf(std::vector<kvffmpeg::Picture>& pictures) {
    return {pictures.begin(), pictures.end()};
}

}  // namespace drawing
