#include "description_text.h"

#include <algorithm>
#include <ostream>
#include <sstream>
#include <string>

#include "console.h"

namespace kvffmpeg::tool {
namespace {

constexpr std::size_t labelWidth = 13;

void writeLine(std::ostream& out, const std::string& label, const std::string& value) {
    const std::size_t padding = label.size() < labelWidth ? labelWidth - label.size() : 1;
    out << label << std::string(padding, ' ') << printable(value) << '\n';
}

std::string textOf(const Json& value) {
    return value.is_null() ? std::string("unknown") : value.get<std::string>();
}

std::string numberText(double number) {
    std::ostringstream text;
    text << number;  // six digits: 25, 29.97, 23.976
    return text.str();
}

std::string timeText(const Json& microseconds) {
    return microseconds.is_null() ? std::string("unknown")
                                  : clockText(Timestamp(microseconds.get<std::int64_t>()));
}

/// A list of facts that leaves out what is not known.
class Facts {
public:
    void add(const std::string& fact) { text_ += (text_.empty() ? "" : ", ") + fact; }
    void addIfKnown(const Json& fact) {
        if (!fact.is_null()) add(fact.get<std::string>());
    }
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

void addVideoFacts(Facts& facts, const Json& track) {
    const Json& width = track.at("width");
    const Json& height = track.at("height");
    if (!width.is_null() && !height.is_null()) facts.add(width.dump() + "x" + height.dump());
    facts.addIfKnown(track.at("pixel_format"));
    const Json& rate = track.at("frame_rate");
    if (!rate.is_null()) facts.add(numberText(rate.get<double>()) + " fps");
    if (track.at("attached_picture").get<bool>()) facts.add("attached picture");
}

/// "1 packet", "2 packets".
std::string counted(const Json& count, const std::string& what) {
    return count.dump() + " " + what + (count == 1 ? "" : "s");
}

/// The name of the layout, or the bare number of channels.
void addLayout(Facts& facts, const Json& track) {
    const Json& layout = track.at("channel_layout");
    const Json& channels = track.at("channels");
    if (!layout.is_null()) {
        facts.addIfKnown(layout);
    } else if (!channels.is_null()) {
        facts.add(counted(channels, "channel"));
    }
}

void addAudioFacts(Facts& facts, const Json& track) {
    const Json& rate = track.at("sample_rate");
    if (!rate.is_null()) facts.add(rate.dump() + " Hz");
    addLayout(facts, track);
    facts.addIfKnown(track.at("sample_format"));
}

std::string trackText(const Json& track) {
    Facts facts;
    facts.add(textOf(track.at("type")));
    facts.add(track.at("codec").is_null() ? std::string("unknown codec") : textOf(track.at("codec")));
    if (track.contains("width")) addVideoFacts(facts, track);
    if (track.contains("sample_rate")) addAudioFacts(facts, track);
    facts.addIfKnown(track.at("language"));
    if (!track.at("title").is_null()) facts.add("\"" + textOf(track.at("title")) + "\"");
    if (track.at("default").get<bool>()) facts.add("default");
    return facts.text();
}

void writeTrack(std::ostream& out, const Json& track) {
    writeLine(out, "Track " + track.at("index").dump() + ":", trackText(track));
    if (!track.contains("packets")) return;
    writeLine(out, "",
              counted(track.at("packets"), "packet") + ", " + counted(track.at("key_frames"), "key frame"));
}

void writeMetadata(std::ostream& out, const Json& metadata) {
    if (metadata.empty()) return;
    out << "Metadata:\n";
    std::size_t width = 0;
    for (const auto& entry : metadata.items()) width = std::max(width, printable(entry.key()).size());
    for (const auto& entry : metadata.items()) {
        const std::string key = printable(entry.key());
        out << "  " << key << ": " << std::string(width - key.size(), ' ') << printable(textOf(entry.value()))
            << '\n';
    }
}

}  // namespace

void writeText(std::ostream& out, const Json& description) {
    writeLine(out, "Input:", textOf(description.at("input")));
    const Json& longName = description.at("format_description");
    writeLine(out, "Format:",
              textOf(description.at("format")) + (longName.is_null() ? "" : " (" + textOf(longName) + ")"));
    writeLine(out, "Duration:", timeText(description.at("duration_us")));
    writeLine(out, "Start:", timeText(description.at("start_us")));
    const Json& origin = description.at("time_origin_us");
    if (!origin.is_null()) {
        writeLine(out, "Time origin:", Timestamp(origin.get<std::int64_t>()).debugDescription() + " s");
    }
    for (const Json& track : description.at("tracks")) writeTrack(out, track);
    writeMetadata(out, description.at("metadata"));
}

}  // namespace kvffmpeg::tool
