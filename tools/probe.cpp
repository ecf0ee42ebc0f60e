#include "probe.h"

#include <iostream>
#include <vector>

#include "console.h"
#include "description.h"
#include "description_text.h"

namespace kvffmpeg::tool {
namespace {

std::vector<PacketCount> countPackets(Input& input) {
    std::vector<PacketCount> counts(input.context().tracksNumber());
    std::uint64_t total = 0;
    const Progress progress(" packets/s");
    while (const std::shared_ptr<Packet> packet = input.readPacket()) {
        const unsigned int track = packet->streamIndex();
        // Some containers announce a track with its first packet.
        if (track >= counts.size()) counts.resize(track + std::size_t{1});
        ++counts[track].packets;
        if (packet->isKeyFrame()) ++counts[track].keyFrames;
        ++total;
        if (progressIsDue()) {
            progress.show(std::to_string(total) + " packets", static_cast<double>(total), input.shareRead());
        }
    }
    clearProgress();
    return counts;
}

}  // namespace

void probe(const ProbeOptions& options) {
    Input input(options.input);
    std::vector<PacketCount> counts;
    if (options.countPackets) counts = countPackets(input);
    const Json description = describe(input, options.countPackets ? &counts : nullptr);
    if (options.json) {
        // Containers hold bytes in any encoding; what is not UTF-8 must not break the document.
        std::cout << description.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    } else {
        writeText(std::cout, description);
    }
    flushOutput();
}

}  // namespace kvffmpeg::tool
