// libFuzzer entry: CallSequenceInput of call_sequence_target.cpp.
#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    korvo_fuzz::CallSequenceInput(data, size);
    return 0;
}
