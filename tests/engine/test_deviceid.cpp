// The device id: generated once and kept in the settings store under
// "sms_uuid" when none is given, used as given otherwise. The store is a
// temporary directory set up before anything reads settings.

#include "message_lib.h"
#include "messageprivate.h"

#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QSysInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

std::string deviceIdOf(const char *given, const char *name = "")
{
    Message_lib lib(nullptr, nullptr, given, name);
    return lib.engine()->currentDeviceId();
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

} // namespace

TEST(EngineDeviceId, GeneratedOncePersistedAndOverriddenByAGivenId)
{
    QTemporaryDir store;
    ASSERT_TRUE(store.isValid());
    qputenv("XDG_CONFIG_HOME", store.path().toUtf8());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, store.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, store.path());
    QCoreApplication::setOrganizationName("pushchat-tests");
    QCoreApplication::setApplicationName("deviceid");
    const QString file = QSettings().fileName();
    ASSERT_TRUE(file.startsWith(store.path())) << file.toStdString();

    const std::string first = deviceIdOf("");
    EXPECT_TRUE(QRegularExpression("^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$")
                    .match(QString::fromStdString(first))
                    .hasMatch())
        << first;
    EXPECT_EQ(QSettings().value("sms_uuid").toString().toStdString(), first);
    EXPECT_EQ(deviceIdOf(""), first); // read back, not generated again

    // A given id is used as it is and the store is left alone.
    const QByteArray before = contentOf(file);
    EXPECT_EQ(deviceIdOf("my-device", "Named"), "my-device");
    EXPECT_EQ(contentOf(file), before);

    // A stored id wins over a fresh one, whatever its form.
    {
        QSettings settings;
        settings.setValue("sms_uuid", "stored id");
    }
    EXPECT_EQ(deviceIdOf(""), "stored id");

    // Without a name, the platform's.
    Message_lib unnamed(nullptr, nullptr, "d", "");
    EXPECT_EQ(QString::fromStdString(unnamed.engine()->currentDeviceName()),
              QSysInfo::prettyProductName() + ":" + QSysInfo::currentCpuArchitecture());
}
