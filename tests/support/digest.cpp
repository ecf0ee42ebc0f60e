#include "support/digest.h"

#include <string_view>

extern "C" {
#include <libavutil/md5.h>
#include <libavutil/mem.h>
}

namespace kvffmpeg::test {
namespace {

/// FFmpeg 3 counts bytes in an int, later releases in a size_t.
template <typename Length>
void update(void (*updateDigest)(AVMD5*, const std::uint8_t*, Length), AVMD5* context,
            const std::uint8_t* data, std::size_t length) {
    updateDigest(context, data, static_cast<Length>(length));
}

}  // namespace

std::string md5(const std::vector<std::uint8_t>& bytes) {
    std::uint8_t digest[16];
    AVMD5* context = av_md5_alloc();
    av_md5_init(context);
    update(av_md5_update, context, bytes.data(), bytes.size());
    av_md5_final(context, digest);
    av_free(context);
    constexpr std::string_view hex = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : digest) {
        text += hex[byte / 16];
        text += hex[byte % 16];
    }
    return text;
}

}  // namespace kvffmpeg::test
