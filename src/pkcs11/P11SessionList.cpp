#include "pkcs11/P11SessionList.h"

#include <algorithm>
#include <new>
#include <vector>

#include "pkcs11/P11Session.h"

struct P11SessionList {
    std::vector<P11Session*> sessions;
};

CK_RV P11SessionList_construct(P11SessionList** list)
{
    *list = new (std::nothrow) P11SessionList;
    return *list ? CKR_OK : CKR_HOST_MEMORY;
}

CK_RV P11SessionList_destruct(P11SessionList** list)
{
    delete *list;
    *list = nullptr;
    return CKR_OK;
}

CK_RV P11SessionList_add(P11SessionList* list, P11Session* session)
{
    try {
        list->sessions.push_back(session);
    } catch (const std::bad_alloc&) {
        return CKR_HOST_MEMORY;
    }
    return CKR_OK;
}

CK_RV P11SessionList_remove(P11SessionList* list, P11Session* session)
{
    auto it = std::find(list->sessions.begin(), list->sessions.end(), session);
    if (it == list->sessions.end()) return CKR_GENERAL_ERROR;
    list->sessions.erase(it);
    return CKR_OK;
}

CK_RV P11SessionList_contains(P11SessionList* list, P11Session* session, CK_BBOOL* contains)
{
    *contains = std::find(list->sessions.begin(), list->sessions.end(), session) != list->sessions.end();
    return CKR_OK;
}

CK_RV P11SessionList_popSession(P11SessionList* list, P11Session** session)
{
    *session = nullptr;
    if (list->sessions.empty()) return CKR_OK;
    *session = list->sessions.front();
    list->sessions.erase(list->sessions.begin());
    return CKR_OK;
}

CK_RV P11SessionList_findSessionHandle(P11SessionList* list, CK_SESSION_HANDLE handle, P11Session** session)
{
    *session = nullptr;
    for (P11Session* s : list->sessions) {
        if (s->handle == handle) {
            *session = s;
            break;
        }
    }
    return CKR_OK;
}

CK_RV P11SessionList_enumSessions(P11SessionList* list, P11SessionListCursor* cursor, P11Session** session)
{
    *session = *cursor < list->sessions.size() ? list->sessions[*cursor] : nullptr;
    if (*session) ++*cursor;
    return CKR_OK;
}
