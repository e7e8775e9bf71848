#include "deps/cpp_modules/ByteArray.h"

#include <gtest/gtest.h>

#include "deps/cpp_modules/base64.h"
#include "deps/cpp_modules/exceptions.h"
#include "deps/cpp_modules/tsq_string.h"

TEST(ByteArrayHex, RoundTripsInBothCases)
{
    const ByteArray bytes{0x00, 0x0A, 0xFF, 0x7f};
    EXPECT_EQ(bytes.toHex(), "000AFF7F");
    EXPECT_EQ(bytes.toHex(HexCase::Lower), "000aff7f");
    EXPECT_EQ(ByteArray::fromHex("000aFF7f"), bytes);
}

TEST(ByteArrayHex, DecodesAsFarAsTheDigitsGo)
{
    EXPECT_EQ(ByteArray::fromHex("0102x304"), (ByteArray{1, 2}));
    EXPECT_EQ(ByteArray::fromHex("01020"), (ByteArray{1, 2}));  // lone last digit dropped
    EXPECT_TRUE(ByteArray::fromHex("").empty());
    EXPECT_TRUE(ByteArray::fromHex("zz").empty());
}

TEST(ByteArraySlices, ViewsAreBoundsChecked)
{
    ByteArray bytes{1, 2, 3, 4, 5};
    EXPECT_EQ(ByteArray(bytes.constSlice(1, 3)), (ByteArray{2, 3, 4}));
    EXPECT_TRUE(bytes.constSlice(5, 0).empty());
    EXPECT_THROW(bytes.constSlice(4, 2), index_out_of_range);
    EXPECT_THROW(bytes.constSlice(6, 0), index_out_of_range);
    EXPECT_THROW(bytes.constSlice(1, SIZE_MAX), index_out_of_range);  // no wrap-around
    EXPECT_THROW(bytes.at(5), index_out_of_range);

    ByteArray_Slice tail = bytes.slice(3, 2);
    tail.copyFrom(ByteArray{9, 8});
    EXPECT_EQ(bytes, (ByteArray{1, 2, 3, 9, 8}));
    EXPECT_THROW(tail.copyFrom(ByteArray{1, 2, 3}), index_out_of_range);
}

TEST(ByteArraySlices, CompareByContent)
{
    const ByteArray a{1, 2, 3};
    const ByteArray b{0, 1, 2, 3};
    EXPECT_TRUE(a.constSlice() == b.constSlice(1, 3));
    EXPECT_FALSE(a.constSlice() == b.constSlice(0, 3));
    EXPECT_TRUE(ByteArray_constSlice() == b.constSlice(4, 0));
}

TEST(ByteArrayReader, ReadsInOrderAndRefusesToRunOff)
{
    const ByteArray bytes{0x12, 0x34, 0x56, 0x78, 0x9A};
    ByteArray_Reader reader(bytes);
    EXPECT_EQ(reader.peekByte(), 0x12);
    EXPECT_EQ(reader.readUInt(2), 0x1234u);
    EXPECT_EQ(reader.readByte(), 0x56);
    EXPECT_THROW(reader.readBytes(3), index_out_of_range);
    EXPECT_EQ(reader.position(), 3u);  // a failed read consumes nothing
    EXPECT_EQ(ByteArray(reader.readBytes(2)), (ByteArray{0x78, 0x9A}));
    EXPECT_TRUE(reader.atEnd());
    EXPECT_THROW(reader.readByte(), index_out_of_range);
}

TEST(Base64, EncodesAndDecodesTheRfcExamples)
{
    const char* plain[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
    const char* coded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(base64::encode(ByteArray::fromString(plain[i])), coded[i]);
        EXPECT_EQ(base64::decode(coded[i]), ByteArray::fromString(plain[i]));
    }
}

TEST(Base64, AcceptsLineBreaksAndMissingPadding)
{
    EXPECT_EQ(base64::decode("Zm9v\nYmE"), ByteArray::fromString("fooba"));
    EXPECT_EQ(base64::decode(" Zg \r\n"), ByteArray::fromString("f"));
}

TEST(Base64, RefusesMalformedTextKeepingWhatWentBefore)
{
    EXPECT_THROW(base64::decode("Zm9v!"), base64::bad_format);
    EXPECT_THROW(base64::decode("Zm9vY"), base64::bad_format);    // single leftover character
    EXPECT_THROW(base64::decode("Zg==Zg=="), base64::bad_format);  // data after padding
    EXPECT_THROW(base64::decode("Z==="), base64::bad_format);
    try {
        base64::decode("Zm9vYmFy*Zg");
        FAIL();
    } catch (const base64::bad_format& e) {
        EXPECT_EQ(e.decodedSoFar(), ByteArray::fromString("foobar"));
        EXPECT_NE(dynamic_cast<const root_exception*>(&e), nullptr);
    }
}

TEST(TsqStrings, CaseSplitAndFormat)
{
    EXPECT_EQ(tsq::toUpper("abcZ09-é"), "ABCZ09-é");
    EXPECT_TRUE(tsq::equalsIgnoreCase("ABC.cer", "abc.CER"));
    EXPECT_FALSE(tsq::equalsIgnoreCase("abc", "abcd"));
    EXPECT_TRUE(tsq::endsWith("user_ab.cer", ".cer"));
    EXPECT_FALSE(tsq::startsWith("ab", "abc"));
    EXPECT_EQ(tsq::split("a,,b,", ','), (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(tsq::format("%s=%lu", "n", 42UL), "n=42");
    EXPECT_EQ(tsq::format("%s", std::string(5000, 'x').c_str()).size(), 5000u);
}
