#include "deps/cpp_modules/Hashers.h"

#include <gtest/gtest.h>

#include "deps/cpp_modules/SecureRandomNumberGenerator.h"
#include "deps/cpp_modules/SystemInfo.h"

TEST(Hashers, OneShotAndIncrementalAgree)
{
    const ByteArray abc = ByteArray::fromString("abc");
    EXPECT_EQ(Sha256::Hash(abc).toHex(HexCase::Lower),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(Sha1::Hash(abc).toHex(HexCase::Lower), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(Md5::Hash(abc).toHex(HexCase::Lower), "900150983cd24fb0d6963f7d28e17f72");

    Sha256 hasher;
    hasher.update(ByteArray::fromString("a"));
    hasher.update(ByteArray::fromString("bc"));
    EXPECT_EQ(hasher.final(), Sha256::Hash(abc));
    // final() starts afresh.
    hasher.update(abc);
    EXPECT_EQ(hasher.final(), Sha256::Hash(abc));
}

TEST(SecureRandom, FillsTheWholeBuffer)
{
    const ByteArray a = SecureRandomNumberGenerator::getBytes(64);
    const ByteArray b = SecureRandomNumberGenerator::getBytes(64);
    EXPECT_EQ(a.size(), 64u);
    EXPECT_NE(a, b);
    EXPECT_TRUE(SecureRandomNumberGenerator::getBytes(0).empty());
}

TEST(SystemInfo, ReportNamesTheKernelAndCarriesTheConfigurationText)
{
    EXPECT_TRUE(SystemInfo::systemDescription().startsWith("Linux version"));
    const QString report = SystemInfo::report("Certificate dir: x\n");
    EXPECT_TRUE(report.contains(SystemInfo::systemDescription()));
    EXPECT_TRUE(report.endsWith("Certificate dir: x\n"));
}
