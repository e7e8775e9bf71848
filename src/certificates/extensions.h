#pragma once
// Certificate extensions, in encoding order.

#include <vector>

#include "deps/cpp_modules/ByteArray.h"

namespace asn1 {
class Asn1Reader;
}

class Extension {
public:
    Extension() = default;
    Extension(const ByteArray& oid, bool critical, const ByteArray& value)
        : oid_(oid), critical_(critical), value_(value) {}

    // Reads one SEQUENCE { OID, BOOLEAN OPTIONAL, OCTET STRING }.
    static Extension Parse(asn1::Asn1Reader& reader);

    // Content bytes of the extension's OID.
    const ByteArray& getOid() const { return oid_; }
    bool isCritical() const { return critical_; }
    // Content bytes of the OCTET STRING, i.e. the DER of the extension value.
    const ByteArray& getValue() const { return value_; }

private:
    ByteArray oid_;
    bool critical_ = false;
    ByteArray value_;
};

class Extensions {
public:
    Extensions() = default;

    // Reads the SEQUENCE of extensions from the reader.
    static Extensions Parse(asn1::Asn1Reader& reader);

    const std::vector<Extension>& getExtensions() const { return extensions_; }
    size_t size() const { return extensions_.size(); }
    // The first extension whose OID content bytes equal `oid`, or null.
    const Extension* FindExtension(const ByteArray_constSlice& oid) const;

private:
    std::vector<Extension> extensions_;
};
