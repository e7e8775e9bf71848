#include "certificates/biginteger.h"

#include <gtest/gtest.h>

TEST(BigInteger, KeepsMinimalBigEndianBytes)
{
    BigInteger a(ByteArray{0x00, 0x00, 0x01, 0x00});
    EXPECT_EQ(a.toByteArray(), (ByteArray{0x01, 0x00}));
    EXPECT_EQ(a.bitLength(), 9u);
    EXPECT_TRUE(BigInteger().isZero());
    EXPECT_TRUE(BigInteger(ByteArray{0x00}).toByteArray().empty());

    BigInteger b = a;
    EXPECT_EQ(b, a);
    b = BigInteger(ByteArray{0x02});
    EXPECT_EQ(a.compare(b), 1);
    EXPECT_EQ(b.compare(a), -1);
    EXPECT_EQ(a.toByteArray(), (ByteArray{0x01, 0x00}));  // the copy was independent
}
