#include "pkcs11/db/Tavik_p11trace.h"

#include <cstdarg>
#include <cstring>

#include "config/fileconfiguration.h"
#include "deps/cpp_modules/tsq_string.h"
#include "logging/Logger.h"
#include "logging/SimpleLogManager.h"
#include "pkcs11/GetToken.h"

using TSQ::Tavik::Logging::ITavikLogger;
using TSQ::Tavik::Logging::SimpleLogManager;

TSQ_TraceContext* P11TraceContext = nullptr;

namespace {

const int kTraceThreshold = TSQ_TRACE_THRESHOLD;

const char* const kApplicationName = "Tavik PKCS#11";

// The library's one context; P11TraceContext points here once opened.
TSQ_TraceContext traceContext;

// A fixed-width text field of a Cryptoki structure: its bytes up to the
// first zero byte, at most the field's width (the fields are blank-padded
// and carry no terminator).
template <size_t N>
std::string fieldText(const CK_UTF8CHAR (&field)[N])
{
    const void* zero = std::memchr(field, 0, N);
    const size_t length = zero ? static_cast<size_t>(static_cast<const CK_UTF8CHAR*>(zero) - field) : N;
    return std::string(reinterpret_cast<const char*>(field), length);
}

// A label for a line; a formatter called without one still writes.
const char* labelText(const char* label)
{
    return label ? label : "";
}

void writeLine(const TSQ_TraceContext* context, int level, const char* text)
{
    ITavikLogger* logger = context->logger;
    switch (level) {
    case 1:
        logger->Error(0, text);
        break;
    case 2:
        logger->Info(0, text);
        break;
    case 3:
    case 4:
        logger->Trace(0, text);
        break;
    default:
        break;
    }
}

// Writes the title line and one line per attribute, the line text made by
// describe(attribute).
template <typename Describe>
void traceTemplate(const TSQ_TraceContext* context, int level, const char* title, const CK_ATTRIBUTE* attributes,
                   CK_ULONG count, Describe describe)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    writeLine(context, level, labelText(title));
    if (!attributes) {
        if (count != 0) writeLine(context, level, "  NULL");
        return;
    }
    for (CK_ULONG i = 0; i < count; ++i)
        writeLine(context, level, ("  " + describe(attributes[i])).c_str());
}

}  // namespace

void TSQ_Trace_Init()
{
    try {
        FileConfiguration configuration;
        SimpleLogManager* manager = SimpleLogManager::GetInstance();
        manager->Init(configuration, kApplicationName);
        traceContext.logger = manager->GetLogger(TSQ::Tavik::Logging::SourceFileName(__FILE__));
        traceContext.threshold = kTraceThreshold;
        P11TraceContext = &traceContext;
    } catch (...) {
        // Settings that cannot be read leave the trace as it was: the call
        // being traced must not fail because of its trace.
    }
}

void TSQ_Trace_Exit()
{
}

bool TSQ_TraceEnabled(const TSQ_TraceContext* context, int level)
{
    // A switched-off logger writes nothing, so nothing is formatted for it
    // either: with logging off (its state after start) a traced call costs
    // only these tests.
    return context && context->logger && level >= 1 && level <= 4 && level <= context->threshold &&
           context->logger->GetEnabled();
}

void TSQ_TraceLine(const TSQ_TraceContext* context, int level, const std::string& text)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    writeLine(context, level, text.c_str());
}

void TSQ_Trace(int level, const char* format, ...)
{
    if (!TSQ_TraceEnabled(P11TraceContext, level) || !format) return;
    va_list arguments;
    va_start(arguments, format);
    const std::string text = tsq::vformat(format, arguments);
    va_end(arguments);
    writeLine(P11TraceContext, level, text.c_str());
}

void TSQ_Trace(int level, const std::string& text)
{
    TSQ_TraceLine(P11TraceContext, level, text);
}

void TSQ_TraceWithRv(const TSQ_TraceContext* context, int level, const char* functionName, CK_RV rv)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    const std::string text =
        tsq::format("Exiting %s with returncode %s\n", labelText(functionName), ckrToString(rv));
    writeLine(context, level, text.c_str());
}

void TSQ_TraceBool(const TSQ_TraceContext* context, int level, const char* label, CK_BBOOL value)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    const std::string text = tsq::format("%s = %s", labelText(label), value ? "CK_TRUE" : "CK_FALSE");
    writeLine(context, level, text.c_str());
}

void TSQ_TraceData(const TSQ_TraceContext* context, int level, const char* label, const void* data,
                   CK_ULONG length)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    std::string text = labelText(label);
    text += " = ";
    if (!data) {
        text += "NULL";
    } else {
        // A label attribute renders text exactly as this line wants it.
        CK_ATTRIBUTE asText = {CKA_LABEL, const_cast<void*>(data), length};
        text += attributeValueToString(asText);
    }
    writeLine(context, level, text.c_str());
}

void TSQ_TraceBytes(const TSQ_TraceContext* context, int level, const char* label, const void* data,
                    CK_ULONG length)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    const std::string text = std::string(labelText(label)) + " = " + bytesToTraceHex(data, length);
    writeLine(context, level, text.c_str());
}

void TSQ_TraceSecureBytes(const TSQ_TraceContext* context, int level, const char* label, const void* data,
                          CK_ULONG /*length*/)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    const std::string text = std::string(labelText(label)) + " = " + (data ? "(removed)" : "NULL");
    writeLine(context, level, text.c_str());
}

void TSQ_TraceAttributeType(const TSQ_TraceContext* context, int level, const char* label,
                            CK_ATTRIBUTE_TYPE type)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    const std::string text = std::string(labelText(label)) + " = " + attributeTypeToString(type);
    writeLine(context, level, text.c_str());
}

void TSQ_TraceAttributes(const TSQ_TraceContext* context, int level, const char* title,
                         const CK_ATTRIBUTE* attributes, CK_ULONG count)
{
    traceTemplate(context, level, title, attributes, count, [](const CK_ATTRIBUTE& attribute) {
        return tsq::format("%s size: %ld", attributeTypeToString(attribute.type),
                           static_cast<long>(attribute.ulValueLen));
    });
}

void TSQ_TraceAttributeValues(const TSQ_TraceContext* context, int level, const char* title,
                              const CK_ATTRIBUTE* attributes, CK_ULONG count)
{
    traceTemplate(context, level, title, attributes, count, [](const CK_ATTRIBUTE& attribute) {
        return std::string(attributeTypeToString(attribute.type)) + " = " + attributeValueToString(attribute);
    });
}

void TSQ_TraceObject(const TSQ_TraceContext* context, int level, const char* label, CK_OBJECT_HANDLE handle)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    const std::string text = std::string(labelText(label)) + " = " + objectHandleToString(handle);
    writeLine(context, level, text.c_str());
}

void TSQ_TraceObjects(const TSQ_TraceContext* context, int level, const char* label,
                      const CK_OBJECT_HANDLE* handles, CK_ULONG count)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    if (!handles) {
        writeLine(context, level, (std::string(labelText(label)) + " = NULL").c_str());
        return;
    }
    writeLine(context, level, tsq::format("%s count: %lu", labelText(label), count).c_str());
    for (CK_ULONG i = 0; i < count; ++i)
        writeLine(context, level, ("  " + objectHandleToString(handles[i])).c_str());
}

void TSQ_TraceMechanism(const TSQ_TraceContext* context, int level, const char* label,
                        const CK_MECHANISM* mechanism)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    std::string text;
    if (!mechanism) {
        text = std::string(labelText(label)) + " = NULL";
    } else {
        text = tsq::format("%s->mechanism = %s, ->pParameter = %s, ->ulParameterLen = %lu", labelText(label),
                           mechanismTypeToString(mechanism->mechanism),
                           bytesToTraceHex(mechanism->pParameter, mechanism->ulParameterLen).c_str(),
                           mechanism->ulParameterLen);
    }
    writeLine(context, level, text.c_str());
}

void TSQ_TraceInfo(const TSQ_TraceContext* context, int level, const char* label, const CK_INFO* info)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    if (!info) {
        writeLine(context, level, (std::string(labelText(label)) + " = NULL").c_str());
        return;
    }
    const std::string text = tsq::format(
        "%s->flags = %lu, ->cryptokiVersion = %u.%u, ->manufacturerID = %s\n"
        "  ->libraryVersion = %u.%u, ->libraryDescription = %s",
        labelText(label), info->flags, info->cryptokiVersion.major, info->cryptokiVersion.minor,
        fieldText(info->manufacturerID).c_str(), info->libraryVersion.major, info->libraryVersion.minor,
        fieldText(info->libraryDescription).c_str());
    writeLine(context, level, text.c_str());
}

void TSQ_TraceSlotInfo(const TSQ_TraceContext*, int, const char*, const CK_SLOT_INFO*)
{
}

void TSQ_TraceTokenInfo(const TSQ_TraceContext* context, int level, const char* label,
                        const CK_TOKEN_INFO* info)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    if (!info) {
        writeLine(context, level, (std::string(labelText(label)) + " = NULL").c_str());
        return;
    }
    const std::string text = tsq::format(
        "%s->label = %s\n  ->manufacturerId = %s\n  ->model = %s\n  ->serialNumber = %s\n"
        "  ->flags = %lu\n  ->ulMaxSessionCount = %lu\n  ->ulSessionCount = %lu\n"
        "  ->ulMaxRwSessionCount = %lu\n  ->ulRwSessionCount = %lu\n"
        "  ->ulMaxPinLen = %lu\n  ->ulMinPinLen = %lu\n"
        "  ->ulTotalPublicMemory = %lu\n  ->ulFreePublicMemory = %lu\n"
        "  ->ulTotalPrivateMemory = %lu\n  ->ulFreePrivateMemory = %lu\n"
        "  ->hardwareVersion = %u.%u\n  ->firmwareVersion = %u.%u\n  ->utcTime = %s",
        labelText(label), fieldText(info->label).c_str(), fieldText(info->manufacturerID).c_str(),
        fieldText(info->model).c_str(), fieldText(info->serialNumber).c_str(), info->flags,
        info->ulMaxSessionCount, info->ulSessionCount, info->ulMaxRwSessionCount, info->ulRwSessionCount,
        info->ulMaxPinLen, info->ulMinPinLen, info->ulTotalPublicMemory, info->ulFreePublicMemory,
        info->ulTotalPrivateMemory, info->ulFreePrivateMemory, info->hardwareVersion.major,
        info->hardwareVersion.minor, info->firmwareVersion.major, info->firmwareVersion.minor,
        fieldText(info->utcTime).c_str());
    writeLine(context, level, text.c_str());
}

void TSQ_TraceSessionInfo(const TSQ_TraceContext* context, int level, const char* label,
                          const CK_SESSION_INFO* info)
{
    if (!TSQ_TraceEnabled(context, level)) return;
    if (!info) {
        writeLine(context, level, (std::string(labelText(label)) + " = NULL").c_str());
        return;
    }
    const std::string text =
        tsq::format("%s->slotId = %lu, ->state = %lu, ->flags = %lu, ->ulDeviceError = %lu", labelText(label),
                    info->slotID, info->state, info->flags, info->ulDeviceError);
    writeLine(context, level, text.c_str());
}

void TSQ_TraceMechInfo(const TSQ_TraceContext*, int, const char*, const CK_MECHANISM_INFO*)
{
}

void TSQ_TraceMechanismTypes(const TSQ_TraceContext*, int, const char*, const CK_MECHANISM_TYPE*, CK_ULONG)
{
}

std::string objectHandleToString(CK_OBJECT_HANDLE handle)
{
    P11Token* token = GetToken();
    if (!token) return tsq::format("hObject=%lu (No token handle)", handle);
    std::string label;
    std::string idHex;
    const bool known = P11Trace_describeObject(token, handle, &label, &idHex);
    return objectDescriptionToString(handle, known, label, idHex);
}

std::string objectDescriptionToString(CK_OBJECT_HANDLE handle, bool known, const std::string& label,
                                      const std::string& idHex)
{
    if (!known) return tsq::format("hObject=%lu (Invalid handle)", handle);
    if (!label.empty()) return tsq::format("hObject=%lu CKA_LABEL=\"%s\"", handle, label.c_str());
    if (!idHex.empty()) return tsq::format("hObject=%lu CKA_ID=\"%s\"", handle, idHex.c_str());
    return tsq::format("hObject=%lu", handle);
}
