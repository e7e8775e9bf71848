// The exception bridge: whatever the trace, a call's body or a class
// member throws comes back as a code, never as an exception.

#include <gtest/gtest.h>

#include <stdexcept>

#include "pkcs11/Tavik_pkcs11_frame.h"
#include "pkcs11/objects/P11Obj_noThrow.h"

namespace {

[[noreturn]] void throwNoMemory() { throw std::bad_alloc(); }
[[noreturn]] void throwFailure() { throw std::runtime_error("broken"); }
[[noreturn]] void throwOther() { throw 42; }

CK_RV memberNoMemory(int) { throwNoMemory(); }
CK_RV memberFailure(int) { throwFailure(); }
CK_RV memberOther(int) { throwOther(); }
CK_RV memberFine(int value) { return CK_RV(value); }

TEST(ExceptionBridge, TraceBodyAndMembersGiveCodes)
{
    struct Case {
        const char* name;
        void (*trace)();
        void (*body)();
        CK_RV expected;
    };
    const Case cases[] = {
        {"allocation failure in the trace", throwNoMemory, nullptr, CKR_HOST_MEMORY},
        {"exception in the trace", throwFailure, nullptr, CKR_GENERAL_ERROR},
        {"allocation failure in the body", nullptr, throwNoMemory, CKR_HOST_MEMORY},
        {"exception in the body", nullptr, throwFailure, CKR_GENERAL_ERROR},
        {"no std::exception in the body", nullptr, throwOther, CKR_GENERAL_ERROR},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        bool bodyRan = false;
        const CK_RV rv = frame(
            "C_Test",
            [&] {
                if (c.trace) c.trace();
            },
            [&]() -> CK_RV {
                bodyRan = true;
                if (c.body) c.body();
                return CKR_OK;
            },
            FrameCheck::None);
        EXPECT_EQ(rv, c.expected);
        EXPECT_EQ(bodyRan, c.trace == nullptr);
    }
    EXPECT_EQ(P11Obj_noThrow<memberNoMemory>(1), CKR_HOST_MEMORY);
    EXPECT_EQ(P11Obj_noThrow<memberFailure>(1), CKR_GENERAL_ERROR);
    EXPECT_EQ(P11Obj_noThrow<memberOther>(1), CKR_GENERAL_ERROR);
    EXPECT_EQ(P11Obj_noThrow<memberFine>(CKR_KEY_SIZE_RANGE), CKR_KEY_SIZE_RANGE);
    // The caller's own code for what is not an allocation failure.
    EXPECT_EQ(P11_bridge([]() -> CK_RV { throwFailure(); }, CKR_FUNCTION_FAILED), CKR_FUNCTION_FAILED);
    EXPECT_EQ(P11_bridge([]() -> CK_RV { throwNoMemory(); }, CKR_FUNCTION_FAILED), CKR_HOST_MEMORY);
}

// Before C_Initialize the frame answers for the body.
TEST(ExceptionBridge, FrameChecksInitialisation)
{
    bool bodyRan = false;
    EXPECT_EQ(frame("C_Test", [] {}, [&] { return bodyRan = true, CKR_OK; }), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_FALSE(bodyRan);
}

}  // namespace
