#ifndef QTTESTAPP_H
#define QTTESTAPP_H

#include "eventlog.h"

#include <QCoreApplication>

// The Qt application object a test needs for event loops (QCoreApplication)
// or windows (QApplication), with the arguments it keeps a reference to.
template <class Application> struct QtTestApp {
    int argc = 1;
    char name[5] = "test";
    char *argv[2] = { name, nullptr };
    Application app{ argc, argv };
};

/// Turns this thread's event loop until `condition` holds (see eventually).
template <class Condition> bool pump(Condition condition)
{
    return eventually([&] {
        QCoreApplication::processEvents();
        return condition();
    });
}

#endif // QTTESTAPP_H
