#ifndef PUSHCHAT_TESTS_IMAGETESTKIT_H
#define PUSHCHAT_TESTS_IMAGETESTKIT_H

// Helpers for the image codec tests. Linking imagetestkit.cpp moves HOME and
// XDG_CONFIG_HOME into a temporary folder before any test runs, so decoded
// pictures land in <temp>/home/Documents, never in a real one.

#include <QDir>
#include <QImage>
#include <QString>

namespace imagetest {

/// The sandbox folder; "home/Documents" is the documents directory.
QString sandbox(const QString &name);

/// Writes a PNG (ARGB32 when loaded) of `size` with a gradient; its path.
QString writePicture(QSize size);

inline QStringList savedPictures()
{
    return QDir(sandbox(QStringLiteral("home/Documents"))).entryList({ QStringLiteral("*.jpg") }, QDir::Files);
}

} // namespace imagetest

#endif // PUSHCHAT_TESTS_IMAGETESTKIT_H
