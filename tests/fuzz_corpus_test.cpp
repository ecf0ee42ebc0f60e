// Gives the seeds of the fuzz targets, and what was found with them, to the targets once. A target ends the
// process when something does not hold.

#include <dirent.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/filter_presence.h"

// Of the targets' one function, each under the target's name.
extern "C" {
int kvffmpeg_fuzz_demux(const std::uint8_t* data, std::size_t size);
int kvffmpeg_fuzz_filter(const std::uint8_t* data, std::size_t size);
int kvffmpeg_fuzz_freetype(const std::uint8_t* data, std::size_t size);
int kvffmpeg_fuzz_kernels(const std::uint8_t* data, std::size_t size);
int kvffmpeg_fuzz_picture(const std::uint8_t* data, std::size_t size);
int kvffmpeg_fuzz_raster_text(const std::uint8_t* data, std::size_t size);
int kvffmpeg_fuzz_seek(const std::uint8_t* data, std::size_t size);
int kvffmpeg_fuzz_texts(const std::uint8_t* data, std::size_t size);
}

namespace kvffmpeg {
namespace {

using testing::AnyOf;
using testing::Each;
using testing::Eq;
using testing::IsEmpty;
using testing::Not;

struct Target {
    const char* name;
    int (*run)(const std::uint8_t* data, std::size_t size);
};

constexpr Target targets[] = {
    {"demux", kvffmpeg_fuzz_demux},       {"filter", kvffmpeg_fuzz_filter},
    {"freetype", kvffmpeg_fuzz_freetype}, {"kernels", kvffmpeg_fuzz_kernels},
    {"picture", kvffmpeg_fuzz_picture},   {"raster_text", kvffmpeg_fuzz_raster_text},
    {"seek", kvffmpeg_fuzz_seek},         {"texts", kvffmpeg_fuzz_texts},
};

std::string folderOf(const Target& target) {
    return std::string(KVFFMPEG_FUZZ_CORPUS "/") + target.name;
}

std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(folder.c_str()), closedir);
    while (const dirent* entry = listing ? readdir(listing.get()) : nullptr) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

struct Seed {
    Target target{};
    std::string file;
};

void PrintTo(const Seed& seed, std::ostream* out) {
    *out << folderOf(seed.target) << "/" << seed.file;
}

std::vector<Seed> allSeeds() {
    std::vector<Seed> seeds;
    for (const Target& target : targets) {
        for (const std::string& file : filesIn(folderOf(target))) seeds.push_back({target, file});
    }
    return seeds;
}

/// "demux_fuzz_wav_pcm_wav".
std::string nameOf(const testing::TestParamInfo<Seed>& seed) {
    std::string name = std::string(seed.param.target.name) + "_fuzz_" + seed.param.file;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return std::isalnum(static_cast<unsigned char>(c)) == 0; },
        '_');
    return name;
}

/// In a block of its own size, so that a byte too far is seen.
std::vector<std::uint8_t> readSeed(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.is_open()) << path;
    std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    bytes.shrink_to_fit();
    return bytes;
}

class FuzzCorpusReplay : public testing::TestWithParam<Seed> {};

TEST_P(FuzzCorpusReplay, HoldsWhatTheTargetChecks) {
    const Seed& seed = GetParam();
    const std::vector<std::uint8_t> bytes = readSeed(folderOf(seed.target) + "/" + seed.file);
    // 0, or -1 for what a target leaves out.
    EXPECT_THAT(seed.target.run(bytes.data(), bytes.size()), AnyOf(0, -1));
}

INSTANTIATE_TEST_SUITE_P(Corpus, FuzzCorpusReplay, testing::ValuesIn(allSeeds()), nameOf);

class FuzzTarget : public testing::TestWithParam<Target> {};

TEST_P(FuzzTarget, HasSeeds) {
    EXPECT_THAT(filesIn(folderOf(GetParam())), Not(IsEmpty())) << folderOf(GetParam());
}

TEST_P(FuzzTarget, TakesEmptyInput) {
    EXPECT_EQ(GetParam().run(nullptr, 0), 0);
}

TEST_P(FuzzTarget, TakesOneByteOfAnyValue) {
    for (int value = 0; value < 256; ++value) {
        SCOPED_TRACE(value);
        const auto byte = std::make_unique<std::uint8_t>(static_cast<std::uint8_t>(value));
        EXPECT_THAT(GetParam().run(byte.get(), 1), AnyOf(0, -1));
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzTarget, testing::ValuesIn(targets),
                         [](const testing::TestParamInfo<Target>& target) {
                             return std::string(target.param.name) + "_fuzz_target";
                         });

int runFilterText(const std::string& text) {
    return kvffmpeg_fuzz_filter(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

// The texts that the filter target leaves out would read or write files, or take any amount of memory.
TEST(FuzzFilterTargetTest, TriesHarmlessTexts) {
    std::vector<int> results;
    for (const char* text : {"null", "hflip,vflip", "scale=iw/2:-1", "[in]split[a][b];[a][b]hstack[out]"}) {
        results.push_back(runFilterText(text));
    }
    EXPECT_THAT(results, Each(Eq(0)));
}

TEST(FuzzFilterTargetTest, LeavesOutFiltersThatOpenFiles) {
    // In old releases filters are known only after the library has run one.
    ASSERT_EQ(runFilterText("null"), 0);
    struct Text {
        const char* filter;
        const char* text;
    };
    int tried = 0;
    for (const Text& text :
         {Text{"movie", "movie=x"}, Text{"movie", "null,movie=x"}, Text{"movie", "mo\\vie=x"},
          Text{"movie", "'mo'vie=x"}, Text{"movie", "[in]movie@a=x"}, Text{"movie", " movie =x"},
          Text{"amovie", "amovie=x"}, Text{"lut3d", "lut3d=x"}, Text{"curves", "curves=psfile=x"}}) {
        if (!test::hasFilter(text.filter)) continue;
        ++tried;
        EXPECT_EQ(runFilterText(text.text), -1) << text.text;
    }
    if (tried == 0) GTEST_SKIP() << "libavfilter has none of these filters";
}

TEST(FuzzFilterTargetTest, LeavesOutValuesFromFiles) {
    std::vector<int> results;
    for (const char* text : {"scale=/w=x", "scale=w=2:/h=x", "scale= /w=x", "scale=\\/w=x"}) {
        results.push_back(runFilterText(text));
    }
    EXPECT_THAT(results, Each(Eq(-1)));
}

TEST(FuzzFilterTargetTest, LeavesOutLargeNumbers) {
    std::vector<int> results;
    for (const char* text : {"scale=1000:2", "scale=9e9:2", "scale=9M:2", "scale=0xfffff:2", "scale=9\\999:2",
                             "scale=2^30:2", "scale=pow(2,30):2"}) {
        results.push_back(runFilterText(text));
    }
    EXPECT_THAT(results, Each(Eq(-1)));
}

}  // namespace
}  // namespace kvffmpeg
