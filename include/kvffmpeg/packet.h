#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>

#include "kvffmpeg/export.h"

/// \file
/// Compressed packets, and dictionaries.

extern "C" {
#include <libavcodec/avcodec.h>
}

struct AVDictionary;

namespace kvffmpeg {

/// One compressed unit of a track. It *is* an AVPacket, so it can be handed to FFmpeg wherever a pointer to
/// one is expected; its fields are reached through methods of the same names. It owns one reference to its
/// payload.
///
/// Every copy is deep: copies never share payload memory, and the payload of a copy is followed by FFmpeg's
/// zero padding. A copy that fails for lack of memory leaves a blank packet (size 0, no times), without an
/// exception.
class KVFFMPEG_EXPORT Packet : public AVPacket {
public:
    Packet() noexcept;            ///< Blank: no payload, no times, flags 0.
    Packet(const AVPacket& src);  ///< A deep copy.
    Packet(const Packet& other);  ///< A deep copy.
    /// A deep copy. The reference to the payload held so far is *dropped without being released*: assigning
    /// to a packet that holds a payload leaks that payload. Assigning a packet to itself does nothing.
    Packet& operator=(const Packet& other);
    ~Packet();  ///< Releases the payload.

    /// Makes this a deep copy of `src`, which may be this packet; what it held so far is dropped, not
    /// released.
    /// @returns 0, or FFmpeg's negative error code, after which the packet is blank.
    int createAVPacketCopy(const AVPacket& src);

    int flags() const noexcept { return AVPacket::flags; }  ///< AV_PKT_FLAG_... bits.
    /// AV_PKT_FLAG_KEY of the flags; see `FormatContext::setKeyFrameFlag` for who sets it.
    bool isKeyFrame() const noexcept { return (flags() & AV_PKT_FLAG_KEY) != 0; }
    int size() const noexcept { return AVPacket::size; }  ///< Of the payload, in bytes.

    /// @name Times
    /// In microseconds in packets that `FormatContext::readPacket` gives, else in whatever base their maker
    /// took; the packet does not know.
    /// @{
    std::int64_t pts() const noexcept { return AVPacket::pts; }                    ///< Or AV_NOPTS_VALUE.
    std::int64_t dts() const noexcept { return AVPacket::dts; }                    ///< Or AV_NOPTS_VALUE.
    std::int64_t duration() const noexcept { return AVPacket::duration; }          ///< 0: unknown.
    void setPTS(std::int64_t value) noexcept { AVPacket::pts = value; }            ///< Changes nothing else.
    void setDTS(std::int64_t value) noexcept { AVPacket::dts = value; }            ///< Changes nothing else.
    void setDuration(std::int64_t value) noexcept { AVPacket::duration = value; }  ///< Changes nothing else.
    /// @}

    /// Index of the track in its input.
    unsigned int streamIndex() const noexcept { return static_cast<unsigned int>(stream_index); }
    /// Says which track the packet is of. Not checked: that there is one.
    void setStreamIndex(unsigned int index) noexcept { stream_index = static_cast<int>(index); }
};

/// Writes one line: track, times, duration, size and whether it is a key frame.
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, const Packet& packet);

/// A dictionary of strings, ordered byte by byte, for whatever the caller wants to say of a piece of media.
/// The library never fills one.
class KVFFMPEG_EXPORT Metadata {
public:
    using Map = std::map<std::string, std::string>;  ///< How the entries are kept.
    using const_iterator = Map::const_iterator;      ///< Walks the entries in key order.

    Metadata() = default;  ///< Empty.
    /// The entries of an FFmpeg dictionary, which may be null. Of several equal keys the last one stays.
    explicit Metadata(const AVDictionary* dictionary);

    bool hasKey(std::string key) const;                 ///< True when there is an entry, also an empty one.
    std::string getValue(std::string key) const;        ///< Empty when the key is absent.
    std::string operator[](std::string key) const;      ///< The same; never inserts.
    void removeValue(std::string key);                  ///< An absent key is ignored.
    void addValue(std::string key, std::string value);  ///< Inserts or overwrites.
    void addValue(std::string key, const char* value);  ///< Inserts or overwrites; null counts as "".
    void addValue(std::string key, bool value);         ///< Stores "true" or "false".

    std::size_t size() const noexcept { return entries_.size(); }       ///< Number of entries.
    bool empty() const noexcept { return entries_.empty(); }            ///< True without entries.
    const_iterator begin() const noexcept { return entries_.begin(); }  ///< Pairs of key and value.
    const_iterator end() const noexcept { return entries_.end(); }      ///< Behind the last pair.

private:
    Map entries_;
};

/// "key: value" lines in key order; no line end after the last one.
KVFFMPEG_EXPORT std::ostream& operator<<(std::ostream& out, const Metadata& metadata);

}  // namespace kvffmpeg
