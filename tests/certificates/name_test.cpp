#include "certificates/name.h"

#include <gtest/gtest.h>

#include "Asn1/Asn1Reader.h"
#include "der_builder.h"

using namespace der;

namespace {

Name parseName(const ByteArray& encoded)
{
    asn1::Asn1Reader reader(encoded);
    return Name::Parse(reader);
}

std::string single(const char* typeHex, int stringTag, const ByteArray& value)
{
    return parseName(seq({rdn({atav(typeHex, stringTag, value)})})).toString().toStdString();
}

}  // namespace

TEST(NameText, PrintsLastRdnFirstAndJoinsMultiValuedRdnsWithPlus)
{
    Name subject = parseName(seq({rdn({atav("550406", 0x13, text("DK"))}), rdn({atav("55040A", 0x0C, text("X"))}),
                                  rdn({atav(CN, 0x0C, text("Y")), atav("550405", 0x13, text("PID:9208"))})}));
    EXPECT_EQ(subject.toString().toStdString(), "CN=Y+SN=PID:9208,O=X,C=DK");
    EXPECT_EQ(subject.commonName(), "Y");
    EXPECT_EQ(subject.organizationName(), "X");
    EXPECT_EQ(subject.organizationalUnitName(), "");
    EXPECT_TRUE(subject.equals(subject));
    EXPECT_FALSE(subject.equals(parseName(seq({rdn({atav(CN, 0x0C, text("Y"))})}))));
    EXPECT_EQ(parseName(seq({})).toString(), "");
}

TEST(NameText, UsesShortNamesForKnownTypesAndOneCharacterPerSubidentifierOtherwise)
{
    const struct {
        const char* typeHex;
        std::string expected;
    } cases[] = {
        {"550403", "CN=v"}, {"550406", "C=v"}, {"550407", "L=v"}, {"550408", "ST=v"}, {"55040A", "O=v"},
        {"55040B", "OU=v"}, {"2A864886F70D010901", "EMAIL=v"}, {"550405", "SN=v"}, {"550404", "S=v"},
        {"55042A", "G=v"},
        {"55040C", std::string("U.\x04.\x0C=v")},   // 2.5.4.12: 0x55 is one subidentifier, 'U'
        {"2B8141", "+.\xC3\x81=v"},                 // 0x81 0x41 is 193, printed as U+00C1
    };
    for (const auto& c : cases)
        EXPECT_EQ(single(c.typeHex, 0x13, text("v")), c.expected) << c.typeHex;
    expectThrow<asn1::parse_error>([] { single("550481", 0x13, text("v")); },
                                   "ObjectIdentifier must end with a byte with bit 8 set to 0");
}

TEST(NameText, DecodesDirectoryStringsByTheirType)
{
    const std::string ae = "\xC3\x86";  // U+00C6 in UTF-8
    const struct {
        int tag;
        ByteArray value;
        std::string expected;
    } cases[] = {
        {0x0C, {0xC3, 0x86, 0x62}, ae + "b"},
        {0x13, text("Ab 1"), "Ab 1"},
        {0x14, {0xC6, 0x62}, ae + "b"},
        {0x16, text("a@b.dk"), "a@b.dk"},
        {0x1E, {0x00, 0xC6, 0x00, 0x62}, ae + "b"},
        {0x1C, {0x00, 0x00, 0x00, 0xC6, 0x00, 0x01, 0xF6, 0x00}, ae + "\xF0\x9F\x98\x80"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(single(CN, c.tag, c.value), "CN=" + c.expected) << c.tag;

    const struct {
        int tag;
        ByteArray value;
        const char* message;
    } refused[] = {
        {0x1C, {0, 0, 0, 0x41, 0}, "UniversalString must have a length divisible by 4"},
        {0x1E, {0, 0x41, 0}, "BMPString must have a length divisible by 2"},
        {0x04, text("x"), "Unsupported tag-type for DirectoryString: 4"},
    };
    for (const auto& c : refused)
        expectThrow<asn1::parse_error>([&] { single(CN, c.tag, c.value); }, c.message);
}
