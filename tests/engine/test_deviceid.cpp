// The device id kept in the settings store.

#include "message_lib.h"
#include "messageprivate.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QSettings>
#include <QSysInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

// Generated once and kept under "sms_uuid" when none is given; a given id
// leaves the store alone; without a name, the platform's.
TEST(EngineDeviceId, GeneratedOnceKeptAndOverridden)
{
    QTemporaryDir store;
    qputenv("XDG_CONFIG_HOME", store.path().toUtf8());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, store.path());
    QCoreApplication::setOrganizationName("pushchat-tests");
    const auto idOf = [](const char *given) {
        return Message_lib(nullptr, nullptr, given, "n").engine()->currentDeviceId();
    };
    ASSERT_TRUE(QSettings().fileName().startsWith(store.path()));

    const std::string first = idOf("");
    EXPECT_TRUE(QRegularExpression("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$").match(first.c_str()).hasMatch())
        << first;
    EXPECT_EQ(QSettings().value("sms_uuid").toString().toStdString(), first);
    EXPECT_EQ(idOf(""), first);
    EXPECT_EQ(idOf("given"), "given");
    QSettings().setValue("sms_uuid", "stored id");
    EXPECT_EQ(idOf(""), "stored id");
    EXPECT_EQ(QString::fromStdString(Message_lib(nullptr, nullptr, "d", "").engine()->currentDeviceName()),
              QSysInfo::prettyProductName() + ":" + QSysInfo::currentCpuArchitecture());
}
