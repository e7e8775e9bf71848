// libFuzzer entry: the OCES certificate model. The body lies in
// oces_certificate_target.cpp.
#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    korvo_fuzz::OcesCertificateInput(data, size);
    return 0;
}
