#pragma once
// The PKCS#11 call trace: every C_* function reports its entry, arguments,
// results and exit through these functions, which write to the log manager's
// file logger.
//
// Trace levels: 1 error exits, 2 information, 3 entry and successful exit,
// 4 arguments and results ("In:" / "Out:" lines), 5 lock lines. Level 1 goes
// to the logger's Error, level 2 to Info, levels 3 and 4 to Trace; level 0
// and levels above 4 are never written. A line whose level is above the
// context's threshold is dropped before any of its text is built.
//
// Every formatter takes the context and the level first and does nothing for
// a null context or a level that is not written; pointers given to it may be
// null (it then prints "NULL"). Each formatter writes one log line unless
// stated otherwise. The source line number passed to the logger is 0.
//
// The trace has no lock of its own and never fails the call it reports.

#include <string>

#include "pkcs11/cryptoki.h"
#include "pkcs11/db/Tavik_p11names.h"

namespace TSQ {
namespace Tavik {
namespace Logging {
class ITavikLogger;
}  // namespace Logging
}  // namespace Tavik
}  // namespace TSQ

struct P11Token;

// Where the trace writes, and the highest level it writes.
struct TSQ_TraceContext {
    TSQ::Tavik::Logging::ITavikLogger* logger = nullptr;
    int threshold = 0;
};

// The trace of the entry layer: null until TSQ_Trace_Init has run, then the
// library's one context, which stays valid until the process ends.
extern TSQ_TraceContext* P11TraceContext;

// Opens the trace: reads the settings (FileConfiguration), initialises the
// log manager with them under the application name "Tavik PKCS#11", takes
// the trace's logger (named "Tavik_p11trace.cpp") and sets the threshold to
// 4. C_Initialize calls it on every call; calling it again refreshes the
// same context. It never throws.
void TSQ_Trace_Init();

// Closes the trace. Does nothing: the logger stays open until the process ends.
void TSQ_Trace_Exit();

// True when a line of this level would be written through the context.
bool TSQ_TraceEnabled(const TSQ_TraceContext* context, int level);

// One line through the given context, as it is.
void TSQ_TraceLine(const TSQ_TraceContext* context, int level, const std::string& text);

// The most detailed level this build writes. Lines above it (the level-5
// lock lines) are dropped before any text is built.
constexpr int TSQ_TRACE_THRESHOLD = 4;

// A line that is compiled away entirely when its level is above this
// build's threshold; the lock lines use it, since they sit on every call.
#define TSQ_TRACE_DETAIL(level, ...)                                  \
    do {                                                              \
        if constexpr ((level) <= TSQ_TRACE_THRESHOLD) TSQ_Trace(level, __VA_ARGS__); \
    } while (0)

// One printf-style line through P11TraceContext, e.g.
// TSQ_Trace(3, "Entering %s", "C_SignInit").
void TSQ_Trace(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// One line through P11TraceContext, as it is (no format characters).
void TSQ_Trace(int level, const std::string& text);

// "Exiting <functionName> with returncode <name of rv>\n", the error exit
// line of a C_* function (for example "Exiting C_Login with returncode
// PIN_INCORRECT\n").
void TSQ_TraceWithRv(const TSQ_TraceContext* context, int level, const char* functionName, CK_RV rv);

// "<label> = CK_TRUE" or "<label> = CK_FALSE" (any non-zero byte is CK_TRUE).
void TSQ_TraceBool(const TSQ_TraceContext* context, int level, const char* label, CK_BBOOL value);

// A buffer of text, e.g. a fixed-width label: "<label> = \"<text>\"" with
// control characters as \xHH and at most 256 bytes then "..."; null data
// gives "<label> = NULL".
void TSQ_TraceData(const TSQ_TraceContext* context, int level, const char* label, const void* data,
                   CK_ULONG length);

// A public byte buffer: "<label> = <hex>", upper-case hexadecimal of at most
// the first 256 bytes, then "..." when longer; null data gives "NULL".
void TSQ_TraceBytes(const TSQ_TraceContext* context, int level, const char* label, const void* data,
                    CK_ULONG length);

// A buffer that may be secret (PIN, plaintext, key): "<label> = (removed)",
// or "<label> = NULL" for null data. The bytes are never read.
void TSQ_TraceSecureBytes(const TSQ_TraceContext* context, int level, const char* label, const void* data,
                          CK_ULONG length);

// "<label> = CKA_LABEL".
void TSQ_TraceAttributeType(const TSQ_TraceContext* context, int level, const char* label,
                            CK_ATTRIBUTE_TYPE type);

// The title line, then one line per attribute: "  <type name> size: <length>"
// (length in signed decimal, so CK_UNAVAILABLE_INFORMATION shows as -1). A
// null template with a non-zero count gives the title and "  NULL".
void TSQ_TraceAttributes(const TSQ_TraceContext* context, int level, const char* title,
                         const CK_ATTRIBUTE* attributes, CK_ULONG count);

// The title line, then one line per attribute:
// "  <type name> = <attributeValueToString>". Null template as above.
void TSQ_TraceAttributeValues(const TSQ_TraceContext* context, int level, const char* title,
                              const CK_ATTRIBUTE* attributes, CK_ULONG count);

// "<label> = <objectHandleToString(handle)>".
void TSQ_TraceObject(const TSQ_TraceContext* context, int level, const char* label, CK_OBJECT_HANDLE handle);

// "<label> count: <count>", then one line per handle:
// "  <objectHandleToString(handle)>". Null handles give "<label> = NULL".
void TSQ_TraceObjects(const TSQ_TraceContext* context, int level, const char* label,
                      const CK_OBJECT_HANDLE* handles, CK_ULONG count);

// "<label>->mechanism = <name>, ->pParameter = <hex or NULL>,
// ->ulParameterLen = <length>"; a null mechanism gives "<label> = NULL".
void TSQ_TraceMechanism(const TSQ_TraceContext* context, int level, const char* label,
                        const CK_MECHANISM* mechanism);

// "<label>->flags = %1, ->cryptokiVersion = %2.%3, ->manufacturerID = %4\n"
// "  ->libraryVersion = %5.%6, ->libraryDescription = %7" (one line, numbers in
// decimal, the text fields as their bytes up to the first zero byte).
void TSQ_TraceInfo(const TSQ_TraceContext* context, int level, const char* label, const CK_INFO* info);

// Writes nothing.
void TSQ_TraceSlotInfo(const TSQ_TraceContext* context, int level, const char* label, const CK_SLOT_INFO* info);

// "<label>->label = ...\n  ->manufacturerId = ...\n  ->model = ...\n"
// "  ->serialNumber = ...\n  ->flags = ...\n  ->ulMaxSessionCount = ...\n"
// "  ->ulSessionCount = ...\n  ->ulMaxRwSessionCount = ...\n"
// "  ->ulRwSessionCount = ...\n  ->ulMaxPinLen = ...\n  ->ulMinPinLen = ...\n"
// "  ->ulTotalPublicMemory = ...\n  ->ulFreePublicMemory = ...\n"
// "  ->ulTotalPrivateMemory = ...\n  ->ulFreePrivateMemory = ...\n"
// "  ->hardwareVersion = M.m\n  ->firmwareVersion = M.m\n  ->utcTime = ..."
// (one line; counts in decimal, CK_UNAVAILABLE_INFORMATION and
// CK_EFFECTIVELY_INFINITE as their decimal values).
void TSQ_TraceTokenInfo(const TSQ_TraceContext* context, int level, const char* label,
                        const CK_TOKEN_INFO* info);

// "<label>->slotId = %1, ->state = %2, ->flags = %3, ->ulDeviceError = %4"
// (all in decimal).
void TSQ_TraceSessionInfo(const TSQ_TraceContext* context, int level, const char* label,
                          const CK_SESSION_INFO* info);

// Writes nothing.
void TSQ_TraceMechInfo(const TSQ_TraceContext* context, int level, const char* label,
                       const CK_MECHANISM_INFO* info);

// Writes nothing.
void TSQ_TraceMechanismTypes(const TSQ_TraceContext* context, int level, const char* label,
                             const CK_MECHANISM_TYPE* types, CK_ULONG count);

// A traced object handle, in decimal:
//   no token (library not initialised): "hObject=<h> (No token handle)";
//   handle unknown to the token:        "hObject=<h> (Invalid handle)";
//   object with a non-empty CKA_LABEL:  "hObject=<h> CKA_LABEL=\"<label>\"";
//   else with a non-empty CKA_ID:       "hObject=<h> CKA_ID=\"<hex>\"";
//   else                                "hObject=<h>".
std::string objectHandleToString(CK_OBJECT_HANDLE handle);

// The last four cases of objectHandleToString, from what the token told
// about the handle.
std::string objectDescriptionToString(CK_OBJECT_HANDLE handle, bool known, const std::string& label,
                                      const std::string& idHex);

// Asks the token about an object for the trace. Answers false when the handle
// is unknown; otherwise true with the object's CKA_LABEL as UTF-8 text and its
// CKA_ID as upper-case hexadecimal (each empty when the object has none).
// Takes whatever locks the token's object lookup needs.
bool P11Trace_describeObject(P11Token* token, CK_OBJECT_HANDLE handle, std::string* label, std::string* idHex);
