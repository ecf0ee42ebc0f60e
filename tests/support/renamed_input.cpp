#include "support/renamed_input.h"

#include <dlfcn.h>

#include <cstring>

// This file stands in front of libavformat's avformat_open_input: the executable's own definition is found
// before that of a library. It includes no FFmpeg header, since the parameter types differ between releases,
// and knows only what all of them share: AVFormatContext's second member points to the demuxer, whose first
// member is its name.

namespace {

bool renaming = false;

struct ContextHead {
    const void* avClass;
    const void* demuxer;
};

/// Copies of the demuxers' records, which are longer in later releases; what lies behind a shorter one does
/// no harm.
constexpr std::size_t recordBytes = 512;
alignas(16) unsigned char renamedRecord[recordBytes];

}  // namespace

extern "C" __attribute__((visibility("default"))) int avformat_open_input(ContextHead** context,
                                                                          const char* url, const void* format,
                                                                          void** options) {
    using Open = int (*)(ContextHead**, const char*, const void*, void**);
    static const auto open = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "avformat_open_input"));
    const int result = open(context, url, format, options);
    if (result == 0 && renaming) {
        static const char* const name = "rawpacket";
        std::memcpy(renamedRecord, (*context)->demuxer, recordBytes);
        std::memcpy(renamedRecord, &name, sizeof name);
        (*context)->demuxer = renamedRecord;
    }
    return result;
}

namespace kvffmpeg::test {

RenamedInputs::RenamedInputs() {
    renaming = true;
}
RenamedInputs::~RenamedInputs() {
    renaming = false;
}

}  // namespace kvffmpeg::test
