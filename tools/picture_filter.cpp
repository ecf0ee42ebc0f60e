#include "picture_filter.h"

#include <new>
#include <stdexcept>
#include <utility>

namespace kvffmpeg::tool {

PictureFilter::PictureFilter(const std::string& specification) : specification_(specification) {
    graph_.setFilterSpec(specification);
}

Picture PictureFilter::filter(Frame frame) {
    frame.picture().makeEditable();  // here, so that a lack of memory for it is told as such
    try {
        return std::move(graph_.processFrame(frame).picture());
    } catch (const std::bad_alloc&) {
        // That no picture came out and that there was no memory for it look the same from here. In the latter
        // case there is none for another picture of the input's size either, and this throws again.
        const Picture probe(frame.picture().size(), frame.picture().pixelFormat());
        return Picture();
    } catch (const std::runtime_error& error) {
        throw std::runtime_error("--filter \"" + specification_ + "\": " + error.what());
    }
}

}  // namespace kvffmpeg::tool
