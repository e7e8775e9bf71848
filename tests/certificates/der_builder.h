#pragma once
// DER builders for certificate tests: every input is spelled out here, so
// unusual encodings are as easy to make as ordinary ones.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Asn1/Asn1Writer.h"
#include "deps/cpp_modules/ByteArray.h"

namespace der {

// Runs f and expects exactly an E (or subclass) carrying `message`.
template <class E, class F>
void expectThrow(F f, const char* message, const std::string& context = "")
{
    try {
        f();
        ADD_FAILURE() << context << ": nothing thrown, expected " << message;
    } catch (const E& e) {
        EXPECT_STREQ(e.what(), message) << context;
    }
}

inline ByteArray cat(std::initializer_list<ByteArray> parts)
{
    ByteArray out;
    for (const ByteArray& part : parts) out.append(part);
    return out;
}
inline ByteArray tlv(int tag, const ByteArray& content)
{
    ByteArray out;
    asn1::Asn1Writer(out).WriteElement(tag, content);
    return out;
}
inline ByteArray seq(std::initializer_list<ByteArray> parts) { return tlv(0x30, cat(parts)); }
inline ByteArray text(const std::string& s) { return ByteArray::fromString(s); }
inline ByteArray oid(const char* hex) { return tlv(0x06, ByteArray::fromHex(hex)); }
inline ByteArray atav(const char* type, int tag, const ByteArray& value) { return seq({oid(type), tlv(tag, value)}); }
inline ByteArray rdn(std::initializer_list<ByteArray> atavs) { return tlv(0x31, cat(atavs)); }

const char* const CN = "550403";
const char* const SUBJECT_ALT_NAME = "551D11";
const char* const SHA256_RSA = "2A864886F70D01010B";

inline ByteArray rsaKeyInfo(const ByteArray& modulus, const ByteArray& exponent)
{
    ByteArray bits = cat({{0x00}, seq({tlv(0x02, modulus), tlv(0x02, exponent)})});
    return seq({seq({oid("2A864886F70D010101"), {0x05, 0x00}}), tlv(0x03, bits)});
}
inline ByteArray dsaKeyInfo()
{
    ByteArray params = seq({tlv(0x02, {0x17}), tlv(0x02, {0x0B}), tlv(0x02, {0x04})});
    return seq({seq({oid("2A8648CE380401"), params}), tlv(0x03, {0x00, 0x02, 0x01, 0x05})});
}
inline ByteArray extension(const char* oidHex, const ByteArray& value)
{
    return seq({oid(oidHex), tlv(0x04, value)});
}
inline ByteArray policies(std::initializer_list<const char*> oidsHex)
{
    ByteArray infos;
    for (const char* hex : oidsHex) infos.append(seq({oid(hex)}));
    return tlv(0x30, infos);
}

struct CertificateParts {
    ByteArray serial{0x00, 0x9A};
    ByteArray issuer = seq({rdn({atav("550406", 0x13, text("DK"))}), rdn({atav(CN, 0x0C, text("Test CA"))})});
    ByteArray validity = seq({tlv(0x17, text("200101000000Z")), tlv(0x18, text("20491231235959Z"))});
    ByteArray subject = seq({rdn({atav(CN, 0x0C, text("Holder"))})});
    ByteArray keyInfo = rsaKeyInfo({0x00, 0xC3, 0x01, 0x02}, {0x01, 0x00, 0x01});
    ByteArray afterKey;  // unique identifiers and the like
    std::vector<ByteArray> extensions;
};

inline ByteArray certificate(const CertificateParts& p)
{
    ByteArray tbs = cat({tlv(0xA0, tlv(0x02, {0x02})), tlv(0x02, p.serial), seq({oid(SHA256_RSA)}), p.issuer,
                         p.validity, p.subject, p.keyInfo, p.afterKey});
    if (!p.extensions.empty()) {
        ByteArray list;
        for (const ByteArray& e : p.extensions) list.append(e);
        tbs.append(tlv(0xA3, tlv(0x30, list)));
    }
    return seq({tlv(0x30, tbs), seq({oid(SHA256_RSA)}), tlv(0x03, {0x00, 0xAB})});
}

}  // namespace der
