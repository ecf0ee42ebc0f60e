#include "bombs.h"

#include <array>
#include <cstddef>
#include <utility>

namespace kvffmpeg::reliability {
namespace {

using Bytes = std::vector<std::uint8_t>;

void append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void append(Bytes& bytes, const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
}

void appendBig(Bytes& bytes, std::uint64_t value, int count) {
    while (count-- > 0) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * count)));
}

void appendLittle(Bytes& bytes, std::uint64_t value, int count) {
    for (int i = 0; i < count; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// ----- Deflate -----

/// Bits as deflate packs them: the first is the lowest of a byte.
class BitWriter {
public:
    void put(std::uint32_t value, int count) {
        for (int i = 0; i < count; ++i) {
            if (used_ % 8 == 0) bytes_.push_back(0);
            bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | ((value >> i & 1U) << (used_ % 8)));
            ++used_;
        }
    }
    /// A Huffman code, whose highest bit comes first.
    void putCode(std::uint32_t code, int count) {
        for (int i = count - 1; i >= 0; --i) put(code >> i & 1U, 1);
    }
    void putZeroBits(std::size_t count) {
        for (; count > 0 && used_ % 8 != 0; --count) put(0, 1);
        bytes_.resize(bytes_.size() + count / 8, 0);
        used_ += count / 8 * 8;
        for (count %= 8; count > 0; --count) put(0, 1);
    }
    Bytes take() { return std::move(bytes_); }

private:
    Bytes bytes_;
    std::size_t used_ = 0;
};

/// A zlib stream of `count` zero bytes, as small as deflate can: two bits for 258 bytes.
Bytes deflatedZeros(std::uint64_t count) {
    BitWriter bits;
    bits.put(0x78, 8);
    bits.put(0xda, 8);
    bits.put(1, 1);   // the last block
    bits.put(2, 2);   // with codes of its own
    bits.put(29, 5);  // 286 of literals and lengths
    bits.put(0, 5);   // 1 of distances
    bits.put(14, 4);  // 18 lengths of codes of lengths of codes
    // In the order of the format: 16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1.
    for (const std::uint8_t length : Bytes{0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 2})
        bits.put(length, 3);
    constexpr std::uint32_t zeros =
        0;  // one bit: a run of codes that do not occur; seven more bits: 11 and so many
    constexpr std::uint32_t one = 2;  // two bits: a code of one bit
    constexpr std::uint32_t two = 3;  // two bits: a code of two bits
    const auto putUnused = [&bits](std::uint32_t codes) {
        bits.putCode(zeros, 1);
        bits.put(codes - 11, 7);
    };
    bits.putCode(two, 2);  // the byte 0: 10
    putUnused(138);
    putUnused(117);
    bits.putCode(two, 2);  // the end: 11
    putUnused(28);
    bits.putCode(one, 2);  // 258 bytes again: 0
    bits.putCode(one, 2);  // from one byte before: 0
    std::uint64_t left = count;
    for (std::uint64_t literals = count % 258 == 0 ? 258 : count % 258; left > 0 && literals > 0;
         --literals) {
        bits.putCode(2, 2);
        --left;
    }
    bits.putZeroBits(static_cast<std::size_t>(left / 258 * 2));
    bits.putCode(3, 2);
    Bytes bytes = bits.take();
    appendBig(bytes, (count % 65521) << 16 | 1, 4);  // Adler-32 of zeros
    return bytes;
}

// ----- PNG -----

std::uint32_t crc32(const std::uint8_t* data, std::size_t size) {
    static const std::array<std::uint32_t, 256> table = [] {
        std::array<std::uint32_t, 256> result{};
        for (std::uint32_t i = 0; i < 256; ++i) {
            std::uint32_t value = i;
            for (int bit = 0; bit < 8; ++bit) value = value >> 1 ^ ((value & 1) != 0 ? 0xedb88320U : 0U);
            result[i] = value;
        }
        return result;
    }();
    std::uint32_t crc = ~0U;
    for (std::size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xff] ^ crc >> 8;
    return ~crc;
}

void appendChunk(Bytes& png, const std::string& type, const Bytes& content) {
    appendBig(png, content.size(), 4);
    const std::size_t start = png.size();
    append(png, type);
    append(png, content);
    appendBig(png, crc32(png.data() + start, png.size() - start), 4);
}

enum Colours : std::uint8_t { grey = 0, rgb = 2, rgba = 6 };

/// A PNG whose compressed data unpack to `unpacked` zero bytes.
Bytes png(std::uint32_t width, std::uint32_t height, int depth, Colours colours, std::uint64_t unpacked) {
    Bytes bytes = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    Bytes header;
    appendBig(header, width, 4);
    appendBig(header, height, 4);
    appendBig(header, static_cast<std::uint64_t>(depth), 1);
    appendBig(header, colours, 1);
    appendBig(header, 0, 3);
    appendChunk(bytes, "IHDR", header);
    appendChunk(bytes, "IDAT", deflatedZeros(unpacked));
    appendChunk(bytes, "IEND", {});
    return bytes;
}

/// With all of its rows.
Bytes wholePng(std::uint32_t width, std::uint32_t height, int depth, Colours colours) {
    const std::uint64_t samples = colours == grey ? 1 : colours == rgb ? 3 : 4;
    const std::uint64_t rowBytes = (width * samples * static_cast<std::uint64_t>(depth) + 7) / 8 + 1;
    return png(width, height, depth, colours, rowBytes * height);
}

// ----- The others: little more than a header -----

Bytes bmp(std::uint32_t width, std::uint32_t height, std::uint32_t bits, std::uint32_t compression) {
    Bytes bytes;
    append(bytes, "BM");
    appendLittle(bytes, 54 + 1024 + 64, 4);
    appendLittle(bytes, 0, 4);
    appendLittle(bytes, bits == 8 ? 54 + 1024 : 54, 4);
    appendLittle(bytes, 40, 4);
    appendLittle(bytes, width, 4);
    appendLittle(bytes, height, 4);
    appendLittle(bytes, 1, 2);
    appendLittle(bytes, bits, 2);
    appendLittle(bytes, compression, 4);
    bytes.resize(54 + 1024 + 64, 0);
    return bytes;
}

Bytes tga(std::uint16_t width, std::uint16_t height, std::uint8_t type, std::uint8_t bits, std::size_t runs) {
    Bytes bytes = {0, 0, type, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    appendLittle(bytes, width, 2);
    appendLittle(bytes, height, 2);
    bytes.push_back(bits);
    bytes.push_back(0x20);
    for (std::size_t i = 0; i < runs; ++i) {
        bytes.push_back(0xff);  // 128 times the same
        bytes.resize(bytes.size() + bits / 8, 0x40);
    }
    return bytes;
}

Bytes tiff(std::uint32_t width, std::uint32_t height, std::uint32_t compression, std::uint32_t samples,
           std::uint32_t bits, const Bytes& strip) {
    Bytes bytes;
    append(bytes, "II");
    appendLittle(bytes, 42, 2);
    appendLittle(bytes, 8, 4);
    const std::array<std::array<std::uint32_t, 4>, 10> tags = {
        {{256, 4, 1, width},
         {257, 4, 1, height},
         {258, 3, 1, bits},
         {259, 3, 1, compression},
         {262, 3, 1, samples == 1 ? 1U : 2U},
         {273, 4, 1, 8 + 2 + 10 * 12 + 4},
         {277, 3, 1, samples},
         {278, 4, 1, height},
         {279, 4, 1, static_cast<std::uint32_t>(strip.size())},
         {284, 3, 1, 1}}};
    appendLittle(bytes, tags.size(), 2);
    for (const auto& [tag, type, count, value] : tags) {
        appendLittle(bytes, tag, 2);
        appendLittle(bytes, type, 2);
        appendLittle(bytes, count, 4);
        appendLittle(bytes, value, 4);
    }
    appendLittle(bytes, 0, 4);
    append(bytes, strip);
    return bytes;
}

Bytes gif(std::uint16_t width, std::uint16_t height) {
    Bytes bytes;
    append(bytes, "GIF89a");
    appendLittle(bytes, width, 2);
    appendLittle(bytes, height, 2);
    append(bytes, Bytes{0x80, 0, 0, 0, 0, 0, 0xff, 0xff, 0xff});  // two colours
    append(bytes, Bytes{0x2c, 0, 0, 0, 0});                       // one picture as large as the screen
    appendLittle(bytes, width, 2);
    appendLittle(bytes, height, 2);
    append(bytes, Bytes{0, 2, 2, 0x44, 1, 0, 0x3b});
    return bytes;
}

/// `kind` is SOF's: 0 baseline, 2 progressive. Zeros in the scan are blocks of one colour, two bits each.
Bytes jpeg(std::uint16_t width, std::uint16_t height, std::uint8_t kind, bool grey, std::size_t scan) {
    Bytes bytes = {0xff, 0xd8, 0xff, 0xdb, 0, 67, 0};
    bytes.resize(bytes.size() + 64, 1);
    const std::uint8_t components = grey ? 1 : 3;
    append(bytes, Bytes{0xff, static_cast<std::uint8_t>(0xc0 + kind), 0,
                        static_cast<std::uint8_t>(8 + 3 * components), 8});
    appendBig(bytes, height, 2);
    appendBig(bytes, width, 2);
    bytes.push_back(components);
    for (std::uint8_t i = 1; i <= components; ++i) {
        append(bytes, Bytes{i, static_cast<std::uint8_t>(i == 1 && !grey ? 0x22 : 0x11), 0});
    }
    for (const std::uint8_t table : Bytes{0x00, 0x10}) {  // one code of one bit: 0
        append(bytes, Bytes{0xff, 0xc4, 0, 20, table, 1});
        bytes.resize(bytes.size() + 15 + 1, 0);
    }
    if (scan > 0) {
        append(bytes, Bytes{0xff, 0xda, 0, static_cast<std::uint8_t>(6 + 2 * components), components});
        for (std::uint8_t i = 1; i <= components; ++i) append(bytes, Bytes{i, 0});
        append(bytes, Bytes{0, static_cast<std::uint8_t>(kind == 2 ? 0 : 63), 0});
        bytes.resize(bytes.size() + scan, 0);
    }
    append(bytes, Bytes{0xff, 0xd9});
    return bytes;
}

Bytes riffWebp(const std::string& type, const Bytes& content) {
    Bytes bytes;
    append(bytes, "RIFF");
    appendLittle(bytes, 12 + content.size() + content.size() % 2, 4);
    append(bytes, "WEBP" + type);
    appendLittle(bytes, content.size(), 4);
    append(bytes, content);
    if (content.size() % 2 != 0) bytes.push_back(0);
    return bytes;
}

/// Lossless: each of the five codes has one symbol, which takes no bits, so that every pixel is the same.
Bytes losslessWebp() {
    BitWriter bits;
    bits.put(0x2f, 8);
    bits.put(15999, 14);
    bits.put(15999, 14);
    bits.put(0, 1);  // no alpha
    bits.put(0, 3);  // version
    bits.put(0, 1);  // no transform
    bits.put(0, 1);  // no colour cache
    bits.put(0, 1);  // one group of codes
    for (int code = 0; code < 5; ++code) {
        bits.put(1, 1);  // simple
        bits.put(0, 1);  // of one symbol
        bits.put(0, 1);  // that has one bit
        bits.put(0, 1);  // 0
    }
    bits.put(0, 32);
    return riffWebp("VP8L", bits.take());
}

Bytes lossyWebp() {
    Bytes content = {0x10, 0x02, 0, 0x9d, 0x01, 0x2a};  // a key frame, shown
    appendLittle(content, 16000, 2);
    appendLittle(content, 16000, 2);
    content.resize(content.size() + 600, 0);
    return riffWebp("VP8 ", content);
}

Bytes pnm(const std::string& header) {
    Bytes bytes;
    append(bytes, header);
    bytes.resize(bytes.size() + 4096, 0x40);
    return bytes;
}

/// A run-length packet of TIFF's PackBits for 128 zeros, so often.
Bytes packedBits(std::size_t count) {
    Bytes bytes;
    for (std::size_t i = 0; i < count; ++i) append(bytes, Bytes{0x81, 0});
    return bytes;
}

Bytes qoi(std::uint32_t width, std::uint32_t height, std::size_t runs) {
    Bytes bytes;
    append(bytes, "qoif");
    appendBig(bytes, width, 4);
    appendBig(bytes, height, 4);
    append(bytes, Bytes{4, 0});
    bytes.resize(bytes.size() + runs, 0xfd);  // 62 times the same
    append(bytes, Bytes{0, 0, 0, 0, 0, 0, 0, 1});
    return bytes;
}

Bytes sunRaster(std::uint32_t width, std::uint32_t height) {
    Bytes bytes = {0x59, 0xa6, 0x6a, 0x95};
    for (const std::uint32_t value : {width, height, 24U, 4096U, 2U, 0U, 0U}) appendBig(bytes, value, 4);
    bytes.resize(bytes.size() + 4096, 0x80);
    return bytes;
}

Bytes pcx(std::uint16_t width, std::uint16_t height) {
    Bytes bytes = {0x0a, 5, 1, 8, 0, 0, 0, 0};
    appendLittle(bytes, width - 1U, 2);
    appendLittle(bytes, height - 1U, 2);
    bytes.resize(64, 0);
    append(bytes, Bytes{0, 3});
    appendLittle(bytes, width + width % 2U, 2);
    bytes.resize(128, 0);
    for (int i = 0; i < 4096; ++i) append(bytes, Bytes{0xff, 0x20});
    return bytes;
}

}  // namespace

const std::vector<Bomb>& pictureBombs() {
    static const std::vector<Bomb> bombs = {
        {"PNG, 30000x30000 grey, all there", "png", [] { return wholePng(30000, 30000, 8, grey); }},
        {"PNG, 30000x30000 one bit, all there", "png", [] { return wholePng(30000, 30000, 1, grey); }},
        {"PNG, 16000x16000 grey, all there", "png", [] { return wholePng(16000, 16000, 8, grey); }},
        {"PNG, 16000x16000 one bit, all there", "png", [] { return wholePng(16000, 16000, 1, grey); }},
        {"PNG, 16000x16000 RGB, all there", "png", [] { return wholePng(16000, 16000, 8, rgb); }},
        {"PNG, 16000x16000 RGBA of 16 bits, all there", "png",
         [] { return wholePng(16000, 16000, 16, rgba); }},
        {"PNG, 16000x16000 RGBA of 16 bits, header", "png", [] { return png(16000, 16000, 16, rgba, 1); }},
        {"PNG, 2147483647x2147483647, header", "png", [] { return png(2147483647, 2147483647, 8, grey, 1); }},
        {"PNG, 200000000x1 grey, header", "png", [] { return png(200000000, 1, 8, grey, 1); }},
        {"PNG, 1x200000 RGBA, header", "png", [] { return png(1, 200000, 8, rgba, 1); }},
        {"PNG, 8x8 that unpacks to 1 GB", "png", [] { return png(8, 8, 8, grey, 1000000000); }},
        {"BMP, 65535x65535, header", "bmp", [] { return bmp(65535, 65535, 24, 0); }},
        {"BMP, 16000x16000, header", "bmp", [] { return bmp(16000, 16000, 24, 0); }},
        {"BMP, 16000x16000 run-length, header", "bmp", [] { return bmp(16000, 16000, 8, 1); }},
        {"TIFF, 65535x65535, header", "tif", [] { return tiff(65535, 65535, 1, 1, 8, Bytes(64)); }},
        {"TIFF, 16000x16000 PackBits, header", "tif",
         [] { return tiff(16000, 16000, 32773, 1, 8, packedBits(64)); }},
        {"TIFF, 8000x8000 PackBits, all there", "tif",
         [] { return tiff(8000, 8000, 32773, 1, 8, packedBits(500000)); }},
        {"TIFF, 16000x16000 deflate, all there", "tif",
         [] { return tiff(16000, 16000, 8, 1, 8, deflatedZeros(256000000)); }},
        {"TIFF, 16000x8000 of 16 bits, deflate, all there", "tif",
         [] { return tiff(16000, 8000, 8, 1, 16, deflatedZeros(256000000)); }},
        {"TGA, 65535x65535, header", "tga", [] { return tga(65535, 65535, 2, 24, 16); }},
        {"TGA, 16000x16000 run-length, header", "tga", [] { return tga(16000, 16000, 10, 32, 16); }},
        {"TGA, 5000x5120 run-length, all there", "tga", [] { return tga(5000, 5120, 10, 32, 200000); }},
        {"PPM, 65535x65535, header", "ppm", [] { return pnm("P6\n65535 65535\n255\n"); }},
        {"PPM, 16000x16000, header", "ppm", [] { return pnm("P6\n16000 16000\n255\n"); }},
        {"PPM, 2147483647x2147483647, header", "ppm", [] { return pnm("P6\n2147483647 2147483647\n255\n"); }},
        {"PAM, 16000x16000 RGBA of 16 bits, header", "pam",
         [] {
             return pnm("P7\nWIDTH 16000\nHEIGHT 16000\nDEPTH 4\nMAXVAL 65535\nTUPLTYPE RGB_ALPHA\nENDHDR\n");
         }},
        {"PFM, 16000x16000, header", "pfm", [] { return pnm("PF\n16000 16000\n-1.0\n"); }},
        {"GIF, 65535x65535, header", "gif", [] { return gif(65535, 65535); }},
        {"GIF, 16000x16000, header", "gif", [] { return gif(16000, 16000); }},
        {"WebP lossless, 16000x16000, all there", "webp", losslessWebp},
        {"WebP lossy, 16000x16000, header", "webp", lossyWebp},
        {"JPEG, 65535x65535, header", "jpg", [] { return jpeg(65535, 65535, 0, false, 4096); }},
        {"JPEG, 16000x16000, header", "jpg", [] { return jpeg(16000, 16000, 0, false, 0); }},
        {"JPEG, 16000x16000, begun", "jpg", [] { return jpeg(16000, 16000, 0, false, 4096); }},
        {"JPEG, 16000x16000, all there", "jpg", [] { return jpeg(16000, 16000, 0, false, 1500000); }},
        {"JPEG, 16000x16000 grey, all there", "jpg", [] { return jpeg(16000, 16000, 0, true, 1000000); }},
        {"JPEG, 16000x9000, all there", "jpg", [] { return jpeg(16000, 9008, 0, false, 844500); }},
        {"JPEG, 16000x16000 progressive, begun", "jpg", [] { return jpeg(16000, 16000, 2, false, 4096); }},
        {"JPEG, 6400x6400 progressive, begun", "jpg", [] { return jpeg(6400, 6400, 2, false, 4096); }},
        {"QOI, 16000x16000, header", "qoi", [] { return qoi(16000, 16000, 16); }},
        {"QOI, 7800x7800, all there", "qoi", [] { return qoi(7800, 7800, 981291); }},
        {"Sun raster, 12000x12000 run-length, header", "ras", [] { return sunRaster(12000, 12000); }},
        {"Sun raster, 16000x16000 run-length, header", "ras", [] { return sunRaster(16000, 16000); }},
        {"PCX, 16000x16000, begun", "pcx", [] { return pcx(16000, 16000); }},
    };
    return bombs;
}

}  // namespace kvffmpeg::reliability
