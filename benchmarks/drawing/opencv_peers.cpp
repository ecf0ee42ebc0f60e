#include "peers.h"

#ifdef KVFFMPEG_WITH_OPENCV
#include <algorithm>
#include <iterator>
#include <memory>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace drawing {

#ifdef KVFFMPEG_WITH_OPENCV

namespace {

cv::Mat planeOf(const Image& image, int plane, int width, int height) {
    return cv::Mat(height, width, CV_8U, image.plane(plane), static_cast<std::size_t>(image.linesize(plane)));
}

}  // namespace

Work opencvChromakey(const Frames& frames, std::uint8_t u, std::uint8_t v, int limit, double slope) {
    cv::setNumThreads(1);
    struct Intermediates {  // allocated once
        cv::Mat du, dv, u2, v2, distance, alpha;
    };
    return [frames, u, v, limit, slope, mats = std::make_shared<Intermediates>()](std::size_t frame) {
        const Image& image = frames[frame];
        const cv::Mat planeU = planeOf(image, 1, image.width() / 2, image.height() / 2);
        const cv::Mat planeV = planeOf(image, 2, image.width() / 2, image.height() / 2);
        cv::Mat result = planeOf(image, 3, image.width(), image.height());
        cv::absdiff(planeU, cv::Scalar(u), mats->du);
        cv::absdiff(planeV, cv::Scalar(v), mats->dv);
        cv::multiply(mats->du, mats->du, mats->u2, 1, CV_32F);
        cv::multiply(mats->dv, mats->dv, mats->v2, 1, CV_32F);
        cv::add(mats->u2, mats->v2, mats->distance);
        if (slope > 0) {
            mats->distance.convertTo(mats->alpha, CV_8U, slope, -limit * slope);
        } else {
            cv::compare(mats->distance, cv::Scalar(limit), mats->alpha, cv::CMP_GT);
        }
        cv::resize(mats->alpha, result, result.size(), 0, 0, cv::INTER_NEAREST);
    };
}

Work opencvLut(const Frames& frames, const std::uint8_t (&table)[256]) {
    cv::setNumThreads(1);
    cv::Mat entries(1, 256, CV_8U);
    std::copy(std::begin(table), std::end(table), entries.ptr());
    return [frames, entries](std::size_t frame) {
        const Image& image = frames[frame];
        cv::Mat plane = planeOf(image, 0, image.width(), image.height());
        cv::LUT(plane, entries, plane);
    };
}

#else

Work opencvChromakey(const Frames&, std::uint8_t, std::uint8_t, int, double) {
    return {};
}
Work opencvLut(const Frames&, const std::uint8_t (&)[256]) {
    return {};
}

#endif

}  // namespace drawing
