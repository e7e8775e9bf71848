#include "Asn1/Asn1Reader.h"
#include "Asn1/Asn1Writer.h"

#include <functional>

#include <gtest/gtest.h>

#include "certificates/der_builder.h"

using asn1::Asn1Reader;
using asn1::Asn1Writer;
using der::expectThrow;

TEST(Asn1ReaderLimits, RefusesUnsupportedAndShortDataWithItsMessage)
{
    const char* tags = "Only one- and two-byte tags are supported";
    const char* shortData = "Unexpected end of data";
    const struct {
        ByteArray input;
        std::function<void(Asn1Reader&)> operation;
        const char* message;
    } outOfRange[] = {
        {{0x30, 0x80, 0x00, 0x00}, [](Asn1Reader& r) { r.CheckTag(0x30); r.ReadLength(); },
         "Indefinite length encoding is not supported"},
        {{0x84, 0x00, 0x00, 0x00, 0x01}, [](Asn1Reader& r) { r.ReadLength(); }, "Data sizes above 2^24 are not supported"},
        {{0x1F, 0x81, 0x01}, [](Asn1Reader& r) { r.ReadTag(); }, tags},
        {{0x30}, [](Asn1Reader& r) { r.PeekTag(0x10000); }, tags},
        {{0x30}, [](Asn1Reader& r) { r.CheckTag(0x10000); }, tags},
        {{0x04, 0x05, 0x01, 0x02}, [](Asn1Reader& r) { r.GetBytes(0x04); }, shortData},
        {{0x04, 0x82, 0x01}, [](Asn1Reader& r) { r.GetBytes(0x04); }, shortData},
        {{0x1F}, [](Asn1Reader& r) { r.ReadTag(); }, shortData},
        {{0x01, 0x02}, [](Asn1Reader& r) { r.PeekByte(2); }, shortData},
        {{0x30, 0x01, 0x02, 0x05, 0x05},  // a sub-reader ends where its value ends
         [](Asn1Reader& r) { Asn1Reader sub = r.CheckTagAndGetSubReader(0x30); sub.ReadByte(); sub.ReadByte(); },
         shortData},
        {{1, 2, 3}, [](Asn1Reader& r) { r.getSubSlice(2, 1); },
         "Start index is greater than end index in sub-slice of Asn1Reader."},
        {{1, 2, 3}, [](Asn1Reader& r) { r.getSubSlice(1, 4); },
         "End index of sub-slice of Asn1Reader exceeds size of reader."},
    };
    for (const auto& c : outOfRange) {
        Asn1Reader reader(c.input);
        expectThrow<std::out_of_range>([&] { c.operation(reader); }, c.message, c.input.toHex());
    }
    const struct {
        ByteArray input;
        std::function<void(Asn1Reader&)> operation;
        const char* message;
    } wrongStructure[] = {
        {{0, 0, 0, 0, 0, 0, 0, 0x30}, [](Asn1Reader& r) { for (int i = 0; i < 7; ++i) r.ReadByte(); r.CheckTag(0x02); },
         "Expected tag 2 but got tag 48 at position 7"},
        {{0x1F, 0x21}, [](Asn1Reader& r) { r.CheckTag(0x1F20); }, "Expected tag 7968 but got tag 7969 at position 0"},
        {{0x05, 0x00, 0x00}, [](Asn1Reader& r) { r.GetBytes(0x05); r.CheckEnd(); }, "Expected end of data"},
    };
    for (const auto& c : wrongStructure) {
        Asn1Reader reader(c.input);
        expectThrow<asn1::parse_error>([&] { c.operation(reader); }, c.message, c.input.toHex());
    }
}

TEST(Asn1ReaderLimits, AcceptsNonMinimalLengthsTwoByteTagsAndPeeksWithoutMoving)
{
    const ByteArray input{0x1F, 0x20, 0x81, 0x05, 1, 2, 3, 4, 5, 0x04, 0x83, 0x00, 0x00, 0x01, 9};
    Asn1Reader reader(input);
    EXPECT_TRUE(reader.PeekTag(0x1F20));
    EXPECT_EQ(reader.ReadTag(), 0x1F20);
    EXPECT_EQ(ByteArray(reader.ReadValue()), (ByteArray{1, 2, 3, 4, 5}));
    EXPECT_EQ(ByteArray(reader.GetBytes(0x04)), ByteArray{9});
    EXPECT_TRUE(reader.IsEnd());

    const ByteArray empty, oneByte{0x1F};  // lack of data is no error when peeking
    EXPECT_FALSE(Asn1Reader(empty).PeekTag(0x30));
    Asn1Reader shortReader(oneByte);
    EXPECT_FALSE(shortReader.PeekTag(0x1F20));
    EXPECT_TRUE(shortReader.PeekTag(0x1F));
    EXPECT_EQ(shortReader.position(), 0u);
}

TEST(Asn1ReaderLimits, EncodedValueSpansTagToValueEndInBufferPositions)
{
    const ByteArray input{0x30, 0x03, 0x02, 0x01, 0x05, 0xFF};
    Asn1Reader reader(input);
    EXPECT_EQ(ByteArray(reader.GetEncodedValue(0x30)), (ByteArray{0x30, 0x03, 0x02, 0x01, 0x05}));
    EXPECT_EQ(reader.position(), 5u);
    Asn1Reader sequence = Asn1Reader(input).CheckTagAndGetSubReader(0x30);
    EXPECT_EQ(sequence.position(), 2u);
    EXPECT_EQ(sequence.end(), 5u);
}

TEST(Asn1WriterLengths, ChoosesShortestFormReadsBackAndRefusesOversizedLengthsAndTags)
{
    const struct {
        size_t length;
        ByteArray encoding;
    } cases[] = {
        {0, {0x00}}, {0x7F, {0x7F}}, {0x80, {0x81, 0x80}}, {0xFF, {0x81, 0xFF}}, {0x100, {0x82, 0x01, 0x00}},
        {0xFFFF, {0x82, 0xFF, 0xFF}}, {0x10000, {0x83, 0x01, 0x00, 0x00}}, {0xFFFFFF, {0x83, 0xFF, 0xFF, 0xFF}},
    };
    for (const auto& c : cases) {
        ByteArray out;
        Asn1Writer(out).WriteLength(c.length);
        EXPECT_EQ(out, c.encoding) << c.length;
        EXPECT_EQ(Asn1Reader(out).ReadLength(), c.length);
    }
    ByteArray out;
    Asn1Writer writer(out);
    expectThrow<std::out_of_range>([&] { writer.WriteLength(0x1000000); }, "Lengths larger than 2^24 are not supported");
    expectThrow<std::out_of_range>([&] { writer.WriteTag(0x10000); }, "Three-byte tags are not supported");
    EXPECT_TRUE(out.empty());
    writer.WriteTag(0x1F20);
    writer.WriteElement(0x02, ByteArray{0x05});
    EXPECT_EQ(out, (ByteArray{0x1F, 0x20, 0x02, 0x01, 0x05}));
}
