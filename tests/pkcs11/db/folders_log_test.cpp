// With the log switched on, a search over certificate folders that are
// missing or empty says in the log where the token looked.

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include "logging/SimpleLogManager.h"
#include "pkcs11/cryptoki.h"
#include "support/temp_home.h"

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list);

using TSQ::Tavik::Logging::ITavikLogger;
using TSQ::Tavik::Logging::SimpleLogManager;

TEST(TokenFolders, ASearchThatFindsNothingSaysWhichFoldersItRead)
{
    const QString home = testsupport::tempHome();
    QDir(home + "/.korvo").removeRecursively();
    ASSERT_TRUE(QDir().mkpath(home + "/.korvo/root_certificates"));
    CK_FUNCTION_LIST_PTR f = nullptr;
    ASSERT_EQ(C_GetFunctionList(&f), CKR_OK);
    ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
    // Switched on after C_Initialize, which starts every library life with the log off.
    SimpleLogManager* manager = SimpleLogManager::GetInstance();
    const QString log = home + "/folders.log";
    QFile::remove(log);
    manager->Init(QFile::encodeName(log).constData(), "folders test");
    manager->SetLevel(ITavikLogger::INFO);
    manager->SetLogging(true);
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    EXPECT_EQ(f->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
    EXPECT_EQ(f->C_FindObjectsInit(session, nullptr, 0), CKR_OK);
    EXPECT_EQ(f->C_FindObjectsFinal(session), CKR_OK);
    manager->SetLogging(false);
    EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);

    QFile file(log);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    for (const QString& expected :
         {"Folder of user certificates " + home + "/.korvo/user_certificates does not exist",
          "Folder of intermediate CA certificates " + home + "/.korvo/intermediate_certificates does not exist",
          "Folder of root CA certificates " + home + "/.korvo/root_certificates holds no certificate"})
        EXPECT_TRUE(text.contains(expected)) << expected.toStdString() << "\nnot in:\n" << text.toStdString();
}
