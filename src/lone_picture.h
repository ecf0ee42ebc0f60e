#pragma once

#include <memory>
#include <string>

#include "kvffmpeg/format_context.h"
#include "kvffmpeg/frame.h"

// Pictures from files that strangers send: a few bytes may claim, or unpack to, gigabytes.

namespace kvffmpeg {

/// What `input.decodePacket(packet)` gives, where this is the only packet that is decoded: closes the input.
/// Pictures that are far larger than their packet can be believed to hold do not decode, and large ones are
/// held once, not twice, in the end.
/// @throws std::bad_alloc.
Frame decodeLonePacket(FormatContext& input, const std::string& url, const std::shared_ptr<Packet>& packet);

}  // namespace kvffmpeg
