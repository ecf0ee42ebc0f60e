#include "kvffmpeg/packet.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/dict.h>
#include <libavutil/mem.h>
}

namespace kvffmpeg {
namespace {

using testing::ElementsAre;
using testing::Pair;

static_assert(std::is_base_of_v<AVPacket, Packet> && std::is_convertible_v<Packet*, AVPacket*>);
static_assert(sizeof(Packet) == sizeof(AVPacket), "holds nothing else");
static_assert(std::is_same_v<decltype(std::declval<const Packet&>().streamIndex()), unsigned int>);
static_assert(std::is_same_v<decltype(std::declval<const Packet&>().flags()), int>);
static_assert(std::is_same_v<decltype(std::declval<const Packet&>().size()), int>);
static_assert(std::is_same_v<decltype(std::declval<const Packet&>().pts()), std::int64_t>);

/// A packet made by FFmpeg, released at the end.
class Source {
public:
    explicit Source(const std::vector<std::uint8_t>& payload) : packet_(av_packet_alloc()) {
        if (av_new_packet(packet_, static_cast<int>(payload.size())) < 0) throw std::bad_alloc();
        if (!payload.empty()) std::memcpy(packet_->data, payload.data(), payload.size());
        packet_->pts = 11;
        packet_->dts = 10;
        packet_->duration = 3;
        packet_->stream_index = 2;
        packet_->flags = AV_PKT_FLAG_KEY | AV_PKT_FLAG_CORRUPT;
        packet_->pos = 4711;
    }
    ~Source() { av_packet_free(&packet_); }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    AVPacket& operator*() const { return *packet_; }
    AVPacket* operator->() const { return packet_; }

private:
    AVPacket* packet_;
};

std::vector<std::uint8_t> payload(const Packet& packet) {
    return packet.data ? std::vector<std::uint8_t>(packet.data, packet.data + packet.size())
                       : std::vector<std::uint8_t>();
}

void expectBlank(const Packet& packet) {
    EXPECT_EQ(packet.size(), 0);
    EXPECT_EQ(packet.data, nullptr);
    EXPECT_EQ(packet.buf, nullptr);
    EXPECT_EQ(packet.pts(), AV_NOPTS_VALUE);
    EXPECT_EQ(packet.dts(), AV_NOPTS_VALUE);
    EXPECT_EQ(packet.duration(), 0);
    EXPECT_EQ(packet.flags(), 0);
    EXPECT_FALSE(packet.isKeyFrame());
    EXPECT_EQ(packet.streamIndex(), 0u);
    EXPECT_EQ(packet.side_data_elems, 0);
    EXPECT_EQ(packet.side_data, nullptr);
    EXPECT_EQ(packet.pos, -1);
}

TEST(PacketTest, DefaultIsBlank) {
    expectBlank(Packet());
}

TEST(PacketTest, CanBeHandedToFFmpeg) {
    Packet packet;
    ASSERT_EQ(av_new_packet(&packet, 5), 0);
    EXPECT_EQ(packet.size(), 5);
    av_packet_unref(&packet);
    EXPECT_EQ(packet.size(), 0);
}

TEST(PacketTest, SettersStoreIntoTheirFields) {
    Packet packet;
    packet.setPTS(INT64_MAX);
    packet.setDTS(-1);
    packet.setDuration(40000);
    packet.setStreamIndex(7);
    EXPECT_EQ(packet.pts(), INT64_MAX);
    EXPECT_EQ(packet.dts(), -1);
    EXPECT_EQ(packet.duration(), 40000);
    EXPECT_EQ(packet.streamIndex(), 7u);
    const AVPacket& fields = packet;
    EXPECT_EQ(fields.pts, INT64_MAX);
    EXPECT_EQ(fields.dts, -1);
    EXPECT_EQ(fields.duration, 40000);
    EXPECT_EQ(fields.stream_index, 7);
}

TEST(PacketTest, StreamIndexIsTheFieldsBitPattern) {
    Packet packet;
    static_cast<AVPacket&>(packet).stream_index = -1;
    EXPECT_EQ(packet.streamIndex(), UINT_MAX);
}

TEST(PacketTest, KeyFrameIsBitZeroOfTheFlags) {
    Packet packet;
    static_cast<AVPacket&>(packet).flags = AV_PKT_FLAG_KEY;
    EXPECT_TRUE(packet.isKeyFrame());
    static_cast<AVPacket&>(packet).flags = ~AV_PKT_FLAG_KEY;
    EXPECT_FALSE(packet.isKeyFrame());
    EXPECT_EQ(packet.flags(), ~1);
}

TEST(PacketCopyTest, OfAnAVPacketIsDeepAndComplete) {
    const Source source({1, 2, 3});
    const Packet packet(*source);
    EXPECT_NE(packet.data, source->data);
    EXPECT_NE(packet.buf, source->buf);
    EXPECT_EQ(payload(packet), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_EQ(packet.pts(), 11);
    EXPECT_EQ(packet.dts(), 10);
    EXPECT_EQ(packet.duration(), 3);
    EXPECT_EQ(packet.streamIndex(), 2u);
    EXPECT_EQ(packet.flags(), AV_PKT_FLAG_KEY | AV_PKT_FLAG_CORRUPT);
    EXPECT_TRUE(packet.isKeyFrame());
    EXPECT_EQ(packet.pos, 4711);
    ASSERT_NE(packet.buf, nullptr);
    EXPECT_EQ(av_buffer_get_ref_count(packet.buf), 1);
    EXPECT_EQ(av_buffer_get_ref_count(source->buf), 1);
}

TEST(PacketCopyTest, OfAPacketIsIndependentOfIt) {
    const Packet packet(*Source({1, 2, 3}));
    Packet copy(packet);
    copy.setPTS(99);
    copy.data[0] = 77;
    EXPECT_EQ(packet.pts(), 11);
    EXPECT_EQ(payload(packet), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_EQ(payload(copy), (std::vector<std::uint8_t>{77, 2, 3}));
    EXPECT_NE(copy.data, packet.data);
}

TEST(PacketCopyTest, OfATemporaryIsACopyToo) {
    Packet packet(*Source({1, 2}));
    const std::uint8_t* const data = packet.data;
    const Packet copy(std::move(packet));
    EXPECT_EQ(packet.data, data);  // NOLINT: there is no move
    EXPECT_NE(copy.data, data);
}

TEST(PacketCopyTest, PayloadIsFollowedByZeros) {
    const Source source({1, 2, 3});
    std::memset(source->data + 3, 0xFF, AV_INPUT_BUFFER_PADDING_SIZE);
    const Packet packet(*source);
    EXPECT_EQ(std::count(packet.data + 3, packet.data + 3 + AV_INPUT_BUFFER_PADDING_SIZE, 0),
              AV_INPUT_BUFFER_PADDING_SIZE);
}

TEST(PacketCopyTest, PayloadInsideItsBufferIsCopiedFromWhereItStarts) {
    const Source source({1, 2, 3, 4, 5});
    source->data += 2;
    source->size = 2;
    const Packet packet(*source);
    EXPECT_EQ(payload(packet), (std::vector<std::uint8_t>{3, 4}));
}

TEST(PacketCopyTest, PayloadWithoutAReferenceIsCopiedToo) {
    std::vector<std::uint8_t> bytes{9, 8, 7};
    Packet unowned;
    unowned.data = bytes.data();
    static_cast<AVPacket&>(unowned).size = 3;
    const Packet packet(unowned);
    EXPECT_EQ(payload(packet), bytes);
    EXPECT_NE(packet.data, bytes.data());
    EXPECT_NE(packet.buf, nullptr);
}

TEST(PacketCopyTest, EmptyPayloadIsNotNull) {
    // A packet without data would tell a decoder that the stream has ended.
    const Packet blank, copy(blank);
    EXPECT_EQ(copy.size(), 0);
    EXPECT_NE(copy.data, nullptr);
    EXPECT_EQ(copy.pts(), AV_NOPTS_VALUE);
    EXPECT_EQ(std::count(copy.data, copy.data + AV_INPUT_BUFFER_PADDING_SIZE, 0),
              AV_INPUT_BUFFER_PADDING_SIZE);
    const Packet ofEmpty(*Source({}));
    EXPECT_NE(ofEmpty.data, nullptr);
}

TEST(PacketCopyTest, SideDataIsDuplicated) {
    const Source source({1});
    std::uint8_t* const first = av_packet_new_side_data(&*source, AV_PKT_DATA_SKIP_SAMPLES, 10);
    std::uint8_t* const second = av_packet_new_side_data(&*source, AV_PKT_DATA_NEW_EXTRADATA, 3);
    ASSERT_TRUE(first && second);
    for (int i = 0; i < 10; ++i) first[i] = static_cast<std::uint8_t>(i);
    std::memcpy(second, "abc", 3);
    const Packet packet(*source);
    ASSERT_EQ(packet.side_data_elems, 2);
    EXPECT_EQ(packet.side_data[0].type, AV_PKT_DATA_SKIP_SAMPLES);
    EXPECT_EQ(static_cast<int>(packet.side_data[0].size), 10);
    EXPECT_NE(packet.side_data[0].data, first);
    EXPECT_EQ(std::memcmp(packet.side_data[0].data, first, 10), 0);
    EXPECT_EQ(packet.side_data[1].type, AV_PKT_DATA_NEW_EXTRADATA);
    EXPECT_EQ(std::memcmp(packet.side_data[1].data, "abc", 3), 0);

    const Packet again(packet);
    ASSERT_EQ(again.side_data_elems, 2);
    EXPECT_NE(again.side_data[0].data, packet.side_data[0].data);
}

TEST(PacketCopyTest, SucceedsWithZero) {
    const Source source({1, 2});
    Packet packet;
    EXPECT_EQ(packet.createAVPacketCopy(*source), 0);
    EXPECT_EQ(payload(packet), (std::vector<std::uint8_t>{1, 2}));
}

TEST(PacketCopyTest, FailureIsANegativeCodeAndABlankPacket) {
    std::uint8_t byte = 1;
    for (int size : {INT_MAX, INT_MAX - AV_INPUT_BUFFER_PADDING_SIZE, -1, INT_MIN}) {
        AVPacket source = Packet();
        source.data = &byte;
        source.size = size;
        source.pts = 5;
        source.flags = AV_PKT_FLAG_KEY;
        Packet packet;
        packet.setPTS(9);
        EXPECT_LT(packet.createAVPacketCopy(source), 0) << size;
        expectBlank(packet);
        expectBlank(Packet(source));
    }
}

TEST(PacketCopyTest, FailureForLackOfMemoryLeavesABlankPacketAndLeaksNothing) {
    const Source source({1, 2, 3});
    std::uint8_t* const sideData = av_packet_new_side_data(&*source, AV_PKT_DATA_NEW_EXTRADATA, 5000);
    ASSERT_NE(sideData, nullptr);
    std::memset(sideData, 1, 5000);
    for (std::size_t limit :
         {std::size_t{33}, std::size_t{1000}}) {  // nothing fits; the payload fits, the side data do not
        av_max_alloc(limit);
        Packet packet;
        const int result = packet.createAVPacketCopy(*source);
        av_max_alloc(INT_MAX);
        EXPECT_LT(result, 0) << limit;
        expectBlank(packet);
    }
}

TEST(PacketAssignmentTest, IsDeepAndReturnsTheTarget) {
    const Packet packet(*Source({1, 2, 3}));
    Packet target;
    EXPECT_EQ(&(target = packet), &target);
    EXPECT_EQ(payload(target), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_NE(target.data, packet.data);
    EXPECT_EQ(target.pts(), 11);
    target.setPTS(12);
    EXPECT_EQ(packet.pts(), 11);
}

TEST(PacketAssignmentTest, ToItselfChangesNothing) {
    Packet packet(*Source({1, 2, 3}));
    const std::uint8_t* const data = packet.data;
    const AVBufferRef* const reference = packet.buf;
    Packet& self = packet;
    EXPECT_EQ(&(packet = self), &packet);
    EXPECT_EQ(packet.data, data);
    EXPECT_EQ(packet.buf, reference);
    EXPECT_EQ(packet.pts(), 11);
}

TEST(PacketAssignmentTest, DropsTheOldReferenceWithoutReleasingIt) {
    Packet target(*Source({9}));
    const Packet packet(*Source({1, 2, 3}));
    AVBufferRef* dropped = target.buf;
    target = packet;
    EXPECT_EQ(payload(target), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_NE(target.buf, dropped);
    EXPECT_EQ(av_buffer_get_ref_count(dropped), 1);
    EXPECT_EQ(dropped->data[0], 9);
    av_buffer_unref(&dropped);
}

TEST(PacketAssignmentTest, OfAPacketThatCanNotBeCopiedLeavesABlankOne) {
    std::uint8_t byte = 1;
    Packet huge;
    huge.data = &byte;
    static_cast<AVPacket&>(huge).size = INT_MAX;
    Packet target(*Source({9}));
    AVBufferRef* dropped = target.buf;
    target = huge;
    expectBlank(target);
    EXPECT_EQ(av_buffer_get_ref_count(dropped), 1);
    av_buffer_unref(&dropped);
    static_cast<AVPacket&>(huge).size = 0;
}

TEST(PacketCopyTest, OfItselfGivesANewPayload) {
    Packet packet(*Source({1, 2, 3}));
    AVBufferRef* dropped = packet.buf;
    EXPECT_EQ(packet.createAVPacketCopy(packet), 0);
    EXPECT_EQ(payload(packet), (std::vector<std::uint8_t>{1, 2, 3}));
    EXPECT_EQ(packet.pts(), 11);
    EXPECT_NE(packet.buf, dropped);
    EXPECT_EQ(av_buffer_get_ref_count(dropped), 1);
    av_buffer_unref(&dropped);
}

TEST(PacketTest, DestructorReleasesTheReference) {
    const Source source({1, 2, 3});
    AVBufferRef* reference = nullptr;
    {
        Packet packet;
        ASSERT_EQ(av_packet_ref(&packet, &*source), 0);
        reference = source->buf;
        EXPECT_EQ(av_buffer_get_ref_count(reference), 2);
    }
    EXPECT_EQ(av_buffer_get_ref_count(reference), 1);
}

TEST(PacketTest, IsWrittenInOneLine) {
    std::ostringstream out;
    EXPECT_EQ(&(out << Packet(*Source({1, 2, 3}))), &out);
    EXPECT_THAT(out.str(), testing::HasSubstr("3 bytes"));
    EXPECT_THAT(out.str(), testing::HasSubstr("pts 11"));
    EXPECT_THAT(out.str(), testing::HasSubstr("key frame"));
    EXPECT_THAT(out.str(), testing::Not(testing::HasSubstr("\n")));
    std::ostringstream blank;
    blank << Packet();
    EXPECT_THAT(blank.str(), testing::Not(testing::HasSubstr("key frame")));
    EXPECT_THAT(blank.str(), testing::Not(testing::HasSubstr("-9223372036854775808")));
}

std::vector<std::pair<std::string, std::string>> entries(const Metadata& metadata) {
    return {metadata.begin(), metadata.end()};
}

TEST(MetadataTest, IsEmptyAtFirst) {
    const Metadata metadata;
    EXPECT_TRUE(metadata.empty());
    EXPECT_EQ(metadata.size(), 0u);
    EXPECT_FALSE(metadata.hasKey(""));
}

TEST(MetadataTest, AbsentKeyGivesAnEmptyTextAndIsNotAdded) {
    const Metadata metadata;
    EXPECT_EQ(metadata.getValue("absent"), "");
    EXPECT_EQ(metadata["absent"], "");
    EXPECT_FALSE(metadata.hasKey("absent"));
    EXPECT_TRUE(metadata.empty());
}

TEST(MetadataTest, AddValueInsertsAndOverwrites) {
    Metadata metadata;
    metadata.addValue("title", std::string("one"));
    EXPECT_TRUE(metadata.hasKey("title"));
    EXPECT_EQ(metadata.getValue("title"), "one");
    EXPECT_EQ(metadata["title"], "one");
    metadata.addValue("title", std::string("two"));
    EXPECT_EQ(metadata.getValue("title"), "two");
    EXPECT_EQ(metadata.size(), 1u);
}

TEST(MetadataTest, LiteralIsATextNotABool) {
    Metadata metadata;
    metadata.addValue("title", "literal");
    EXPECT_EQ(metadata.getValue("title"), "literal");
    metadata.addValue("title", "");
    EXPECT_EQ(metadata.getValue("title"), "");
    EXPECT_TRUE(metadata.hasKey("title"));
    metadata.addValue("title", static_cast<const char*>(nullptr));
    EXPECT_EQ(metadata.getValue("title"), "");
}

TEST(MetadataTest, BoolIsStoredAsTrueOrFalse) {
    Metadata metadata;
    metadata.addValue("live", true);
    EXPECT_EQ(metadata.getValue("live"), "true");
    metadata.addValue("live", false);
    EXPECT_EQ(metadata.getValue("live"), "false");
    EXPECT_EQ(metadata.size(), 1u);
}

TEST(MetadataTest, RemoveValueErasesAndIgnoresAbsentKeys) {
    Metadata metadata;
    metadata.addValue("a", "1");
    metadata.removeValue("b");
    EXPECT_EQ(metadata.size(), 1u);
    metadata.removeValue("a");
    EXPECT_FALSE(metadata.hasKey("a"));
    metadata.removeValue("a");
    EXPECT_TRUE(metadata.empty());
}

TEST(MetadataTest, KeysAreOrderedByTheirBytes) {
    Metadata metadata;
    for (const char* key : {"b", "a", "B", "\xC3\xA4", "aa", ""}) metadata.addValue(key, "x");
    EXPECT_THAT(entries(metadata), ElementsAre(Pair("", "x"), Pair("B", "x"), Pair("a", "x"), Pair("aa", "x"),
                                               Pair("b", "x"), Pair("\xC3\xA4", "x")));
}

TEST(MetadataTest, CopiesAreIndependent) {
    Metadata metadata;
    metadata.addValue("a", "1");
    Metadata copy = metadata;
    copy.addValue("a", "2");
    EXPECT_EQ(metadata.getValue("a"), "1");
}

TEST(MetadataTest, TakesTheEntriesOfAnFFmpegDictionary) {
    AVDictionary* dictionary = nullptr;
    av_dict_set(&dictionary, "title", "x y", 0);
    av_dict_set(&dictionary, "artist", "", 0);
    av_dict_set(&dictionary, "Title", "first", AV_DICT_MULTIKEY | AV_DICT_MATCH_CASE);
    av_dict_set(&dictionary, "Title", "last", AV_DICT_MULTIKEY | AV_DICT_MATCH_CASE);
    const Metadata metadata(dictionary);
    av_dict_free(&dictionary);
    EXPECT_THAT(entries(metadata),
                ElementsAre(Pair("Title", "last"), Pair("artist", ""), Pair("title", "x y")));
    EXPECT_TRUE(Metadata(static_cast<const AVDictionary*>(nullptr)).empty());
}

/// Collects what is written and counts flushes.
class CountingBuffer : public std::stringbuf {
public:
    int flushes = 0;

protected:
    int sync() override {
        ++flushes;
        return std::stringbuf::sync();
    }
};

TEST(MetadataTest, PrintsEntriesInKeyOrderOneToALine) {
    Metadata metadata;
    metadata.addValue("b", "2");
    metadata.addValue("a", "1");
    std::ostringstream out;
    EXPECT_EQ(&(out << metadata), &out);
    EXPECT_EQ(out.str(), "a: 1\nb: 2");
}

TEST(MetadataTest, PrintingFlushesAfterEveryEntryButTheLast) {
    for (int entries = 0; entries < 4; ++entries) {
        Metadata metadata;
        for (int i = 0; i < entries; ++i) metadata.addValue(std::to_string(i), "x");
        CountingBuffer collected;
        std::ostream out(&collected);
        out << metadata;
        EXPECT_EQ(collected.flushes, std::max(entries - 1, 0)) << collected.str();
    }
}

TEST(MetadataTest, EmptyDictionaryPrintsNothing) {
    std::ostringstream out;
    out << Metadata();
    EXPECT_EQ(out.str(), "");
}

}  // namespace
}  // namespace kvffmpeg
