#include "exercise.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <typeinfo>

#include "kvffmpeg/kvffmpeg.h"
#include "logger/logger.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace kvffmpeg::mutation {
namespace {

/// A file whose reading fails and fails again must not be read forever.
constexpr int patience = 16;
/// How many packets are read after each seek.
constexpr int packetsAfterSeek = 8;

std::string typeName(const std::exception& error) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(typeid(error).name(), nullptr, nullptr, &status), &std::free);
    return name ? name.get() : typeid(error).name();
}

/// False when the action threw.
template <typename Action>
bool attempt(Outcome& outcome, const char* name, Operation operation, Action action) {
    try {
        action();
        return true;
    } catch (...) {
        note(outcome, name, operation, std::current_exception());
        return false;
    }
}

/// Asks a frame for all that it offers, its outermost bytes included.
void examine(const Frame& frame, Outcome& outcome) {
    if (frame.empty()) return;
    ++outcome.frames;
    (void)frame.debugDescription();
    if (frame.PTS().is_nil()) outcome.failures.emplace_back("a frame has a nil time");
    const Picture& picture = frame.picture();
    if (!picture.empty()) {
        if (picture.width() <= 0 || picture.height() <= 0 ||
            picture.buffer()->size() != picture.getVideoBufferSize()) {
            outcome.failures.push_back("a picture does not fit its buffer: " + picture.debugDescription());
        }
        for (int p = 0; p < 4; ++p) {
            const int bytes = av_image_get_linesize(picture.pixelFormat(), picture.width(), p);
            if (!picture.getPlanes()[p] || bytes <= 0) continue;
            volatile unsigned char byte = picture.getPlanes()[p][0];
            byte = picture.getPlanes()[p][bytes - 1];
            (void)byte;
        }
        volatile unsigned char last = picture.buffer()->data()[picture.buffer()->size() - 1];
        (void)last;
    }
    if (!frame.audioBuffer().empty()) (void)frame.audioBuffer().debugDescription();
}

/// @returns false at the end of the input, or when reading fails.
bool readOne(FormatContext& context, Outcome& outcome, bool& failed) {
    std::shared_ptr<Packet> packet;
    failed = !attempt(outcome, "readPacket", Operation::other, [&] { packet = context.readPacket(); });
    if (!packet) {
        if (!failed && !context.isEOF()) outcome.failures.emplace_back("no packet, and not at the end");
        return false;
    }
    ++outcome.packets;
    attempt(outcome, "decodePacket", Operation::decoding,
            [&] { examine(context.decodePacket(packet), outcome); });
    return true;
}

void readAll(FormatContext& context, Outcome& outcome) {
    int failures = 0;
    for (bool failed = false; failures < patience;) {
        if (readOne(context, outcome, failed)) continue;
        if (!failed) return;
        ++failures;
    }
}

void describe(const FormatContext& context, Outcome& outcome) {
    (void)context.isStreamed();
    (void)context.metadata("title");
    for (unsigned i = 0; i < context.tracksNumber(); ++i) {
        (void)context.channelsAtIndex(i);
        attempt(outcome, "channelLayoutAtIndex", Operation::other,
                [&] { (void)context.channelLayoutAtIndex(i); });
        if (i > 0) outcome.format += ", ";
        outcome.format += avcodec_get_name(context.trackAtIndex(i)->codecpar->codec_id);
    }
}

void seekAbout(FormatContext& context, Outcome& outcome) {
    const std::int64_t duration = context.getAVFormatContext()->duration;
    const std::int64_t middle = duration > 0 ? duration / 2 : 500000;
    for (const std::int64_t target :
         {middle, std::int64_t{0}, std::int64_t{-1}, INT64_MAX, INT64_MIN, middle / 2}) {
        attempt(outcome, "seek", Operation::other, [&] { context.seek(Timestamp(target)); });
        bool failed = false;
        for (int i = 0; i < packetsAfterSeek && readOne(context, outcome, failed); ++i) {
        }
    }
}

std::string beginningOf(const std::string& line) {
    for (const char* const own :
         {"Could not decode video", "Could not decode audio", "Codec with id", "Could not open codec"}) {
        if (line.rfind(own, 0) == 0) return own;
    }
    return line.find(" media format \"") != std::string::npos ? "media format is not supported"
                                                              : "FFmpeg's own";
}

std::mutex logMutex;
Outcome* logOutcome = nullptr;

}  // namespace

void note(Outcome& outcome, const std::string& name, Operation operation,
          const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& error) {
        const std::type_info& type = typeid(error);
        const std::string text = name + ": " + typeName(error) + " \"" + error.what() + '"';
        // Array new's own type is derived from std::bad_alloc.
        const bool mayBe = dynamic_cast<const std::bad_alloc*>(&error) != nullptr ||
                           (operation == Operation::other &&
                            (type == typeid(std::runtime_error) || type == typeid(std::out_of_range) ||
                             type == typeid(std::range_error)));
        if (mayBe) {
            ++outcome.thrown[text];
        } else {
            outcome.failures.push_back(text + " left the library");
        }
    } catch (...) {
        outcome.failures.push_back(name + ": something that is no std::exception left the library");
    }
}

void exercise(const std::string& path, Outcome& outcome) {
    FormatContext first(path);
    if (attempt(outcome, "open", Operation::other, [&] { first.open(std::string(), true); })) {
        outcome.opened = true;
        describe(first, outcome);
        readAll(first, outcome);
        seekAbout(first, outcome);
    }
    FormatContext second(path);
    second.setInterruptCallback();
    if (attempt(outcome, "open without stream information", Operation::other,
                [&] { second.open(std::string(), false); })) {
        attempt(outcome, "moveDecodersFromContext", Operation::other,
                [&] { second.moveDecodersFromContext(&first); });
        attempt(outcome, "close", Operation::other, [&] { first.close(); });
        readAll(second, outcome);
        attempt(outcome, "close", Operation::other, [&] { second.close(); });
    }
    attempt(outcome, "loadPicture", Operation::other,
            [&] { outcome.pictureLoaded = !loadPicture(path).empty(); });
}

void countLogLines(Outcome* outcome) {
    const std::lock_guard<std::mutex> lock(logMutex);
    logOutcome = outcome;
    static const bool installed = [] {
        ffmpeg_enable_logging();
        logger::setSink([](logger::Level, const std::string& line) {
            const std::lock_guard<std::mutex> sinkLock(logMutex);
            if (logOutcome) ++logOutcome->logged[beginningOf(line)];
        });
        return true;
    }();
    (void)installed;
}

std::string packed(const Outcome& o) {
    const nlohmann::json message{{"format", o.format}, {"opened", o.opened},        {"packets", o.packets},
                                 {"frames", o.frames}, {"loaded", o.pictureLoaded}, {"thrown", o.thrown},
                                 {"logged", o.logged}, {"failures", o.failures},    {"seconds", o.seconds},
                                 {"peak", o.peakBytes}};
    // Texts may hold bytes of a file.
    return message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Outcome unpacked(const std::string& message) {
    const nlohmann::json json = nlohmann::json::parse(message);
    Outcome o;
    json.at("format").get_to(o.format);
    json.at("opened").get_to(o.opened);
    json.at("packets").get_to(o.packets);
    json.at("frames").get_to(o.frames);
    json.at("loaded").get_to(o.pictureLoaded);
    json.at("thrown").get_to(o.thrown);
    json.at("logged").get_to(o.logged);
    json.at("failures").get_to(o.failures);
    json.at("seconds").get_to(o.seconds);
    json.at("peak").get_to(o.peakBytes);
    return o;
}

}  // namespace kvffmpeg::mutation
