#include "kvffmpeg/scaler.h"

#include <stdexcept>

#include "text_format.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace kvffmpeg {

struct Scaler::State {
    SwsContext* context = nullptr;
    ~State() { sws_freeContext(context); }
};

Scaler::Scaler() : state_(std::make_unique<State>()) {}
Scaler::~Scaler() = default;

void Scaler::setAlgorithm(const std::string& name) {
    throw std::runtime_error(formatText("Unknown scaling algorithm \"%s\"", name));
}

Picture Scaler::scale(const Picture& source, rect_size_t size, AVPixelFormat format, AVColorRange range) {
    Picture result(size, format, range, 1);
    state_->context =
        sws_getCachedContext(state_->context, source.width(), source.height(), source.pixelFormat(), size.w,
                             size.h, format, algorithm_, nullptr, nullptr, nullptr);
    sws_scale(state_->context, source.getPlanes(), source.getLinesize(), 0, source.height(),
              result.getPlanes(), result.getLinesize());
    return result;
}
Picture Scaler::scale(const Picture& source, rect_size_t size) {
    return scale(source, size, source.pixelFormat(), source.colorRange());
}
Picture Scaler::convertToColorspace(const Picture& source, AVPixelFormat format, AVColorRange range) {
    return scale(source, source.size(), format, range);
}

}  // namespace kvffmpeg
