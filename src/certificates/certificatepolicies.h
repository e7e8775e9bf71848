#pragma once
// The policy identifiers of a certificate-policies extension and the OCES
// policy tests over them.

#include <vector>

#include "deps/cpp_modules/ByteArray.h"

class CertificatePolicies {
public:
    CertificatePolicies() = default;

    // From the extension value: SEQUENCE OF PolicyInformation. Qualifiers are
    // passed over.
    static CertificatePolicies Parse(const ByteArray_constSlice& der);

    // Content bytes of each policy OID, in encoding order.
    const std::vector<ByteArray>& getPolicyIdentifiers() const { return identifiers_; }
    // True when any identifier begins with `prefix`, so sub-arcs match.
    bool hasPolicyIdentifierThatStartsWith(const ByteArray_constSlice& prefix) const;

    bool isOcesPerson() const;       // 1.2.208.169.1.1.1.1
    bool isOcesMedarbejder() const;  // 1.2.208.169.1.1.1.2
    bool isOcesVirksomhed() const;   // 1.2.208.169.1.1.1.3

private:
    std::vector<ByteArray> identifiers_;
};
