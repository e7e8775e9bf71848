#pragma once
// Distinguished names: a Name is a list of RDNs in encoding order, an RDN a
// list of attribute-type-and-values (ATAVs). Types are kept as the content
// bytes of their OIDs, values as text.

#include <vector>

#include <QString>

#include "deps/cpp_modules/ByteArray.h"

namespace asn1 {
class Asn1Reader;
}

class Atav {
public:
    Atav() = default;
    Atav(const ByteArray& type, const QString& value) : type_(type), value_(value) {}

    // Reads one SEQUENCE { OID, DirectoryString } from the reader.
    static Atav Parse(asn1::Asn1Reader& reader);

    const ByteArray& getType() const { return type_; }
    const QString& getValue() const { return value_; }

    // Short name of the type (CN, O, SN, ...), "=", the value.
    QString toString() const;
    bool equals(const Atav& other) const;

private:
    ByteArray type_;
    QString value_;
};

class Rdn {
public:
    Rdn() = default;
    explicit Rdn(const std::vector<Atav>& atavs) : atavs_(atavs) {}

    // Reads one SET of ATAVs from the reader.
    static Rdn Parse(asn1::Asn1Reader& reader);

    const std::vector<Atav>& getAtavs() const { return atavs_; }
    // The first ATAV of the given type (OID content bytes), or null.
    const Atav* FindAtav(const ByteArray_constSlice& type) const;

    // The ATAVs joined with "+" in encoding order.
    QString toString() const;
    bool equals(const Rdn& other) const;

private:
    std::vector<Atav> atavs_;
};

class Name {
public:
    Name() = default;
    explicit Name(const std::vector<Rdn>& rdns) : rdns_(rdns) {}

    // Reads one SEQUENCE of RDNs from the reader.
    static Name Parse(asn1::Asn1Reader& reader);

    const std::vector<Rdn>& getRdns() const { return rdns_; }
    // The first ATAV of the given type, searching the RDNs in order; or null.
    const Atav* GetFirstInstanceOfType(const ByteArray_constSlice& type) const;
    // Value of the first attribute of that type, or an empty text.
    QString commonName() const;
    QString organizationName() const;
    QString organizationalUnitName() const;

    // The RDNs joined with "," and no blank, last RDN first.
    QString toString() const;
    bool equals(const Name& other) const;

private:
    QString firstValueOf(const char* typeHex) const;

    std::vector<Rdn> rdns_;
};

// Text of an OID given by its content bytes, as names print types they have
// no short name for: every subidentifier becomes the one character whose code
// is its low eight bits, joined with ".". Throws asn1::parse_error when the
// last byte has bit 8 set.
QString oidToNameText(const ByteArray_constSlice& oid);
