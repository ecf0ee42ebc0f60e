#include "kvffmpeg/packet.h"

#include <ostream>
#include <utility>

#include "ffmpeg_compat.h"

extern "C" {
#include <libavutil/dict.h>
}

namespace kvffmpeg {

Packet::Packet() noexcept : AVPacket(compat::blankPacket()) {}

Packet::Packet(const AVPacket& src) : AVPacket(compat::blankPacket()) {
    createAVPacketCopy(src);
}

Packet::Packet(const Packet& other) : AVPacket(compat::blankPacket()) {
    createAVPacketCopy(other);
}

Packet& Packet::operator=(const Packet& other) {
    if (this != &other) createAVPacketCopy(other);
    return *this;
}

Packet::~Packet() {
    av_packet_unref(this);
}

int Packet::createAVPacketCopy(const AVPacket& src) {
    return compat::copyPacketDeep(*this, src);
}

std::ostream& operator<<(std::ostream& out, const Packet& packet) {
    const auto time = [&out](const char* name, std::int64_t value) {
        out << name;
        if (value == AV_NOPTS_VALUE) {
            out << "unknown";
        } else {
            out << value;
        }
    };
    out << "packet of track " << packet.streamIndex();
    time(", pts ", packet.pts());
    time(", dts ", packet.dts());
    out << ", duration " << packet.duration() << ", " << packet.size() << " bytes";
    return packet.isKeyFrame() ? out << ", key frame" : out;
}

Metadata::Metadata(const AVDictionary* dictionary) {
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(dictionary, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        addValue(entry->key, entry->value);
    }
}

bool Metadata::hasKey(std::string key) const {
    return entries_.count(key) != 0;
}

std::string Metadata::getValue(std::string key) const {
    const auto entry = entries_.find(key);
    return entry == entries_.end() ? std::string() : entry->second;
}

std::string Metadata::operator[](std::string key) const {
    return getValue(std::move(key));
}

void Metadata::removeValue(std::string key) {
    entries_.erase(key);
}

void Metadata::addValue(std::string key, std::string value) {
    entries_.insert_or_assign(std::move(key), std::move(value));
}

void Metadata::addValue(std::string key, const char* value) {
    addValue(std::move(key), std::string(value ? value : ""));
}

void Metadata::addValue(std::string key, bool value) {
    addValue(std::move(key), std::string(value ? "true" : "false"));
}

std::ostream& operator<<(std::ostream& out, const Metadata& metadata) {
    bool first = true;
    for (const auto& [key, value] : metadata) {
        if (!first) out << std::endl;
        first = false;
        out << key << ": " << value;
    }
    return out;
}

}  // namespace kvffmpeg
