// The process's Qt application object for C clients; see capieventloop.h.

#include "capieventloop.h"

#include "pushchatlog.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <future>
#include <mutex>
#include <thread>

namespace {

class Keeper {
public:
    void hold()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_holds++ == 0 && QCoreApplication::instance() == nullptr)
            start();
    }

    void release()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (--m_holds == 0 && m_thread.joinable()) {
            QMetaObject::invokeMethod(m_application, &QCoreApplication::quit, Qt::QueuedConnection);
            m_thread.join();
            m_application = nullptr;
            qCDebug(lcCapi) << "the library's own event loop ended";
        }
    }

    bool running()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_thread.joinable();
    }

private:
    void start()
    {
        std::promise<QCoreApplication *> made;
        std::future<QCoreApplication *> application = made.get_future();
        m_thread = std::thread([this, &made] {
            QCoreApplication app(m_argc, m_argv);
            // The settings store (an empty device id) goes under the
            // library's name.
            QCoreApplication::setOrganizationName(QStringLiteral("pushchat"));
            QCoreApplication::setApplicationName(QStringLiteral("pushchat-capi"));
            made.set_value(&app);
            app.exec();
        });
        m_application = application.get();
        qCDebug(lcCapi) << "the library runs its own event loop";
    }

    std::mutex m_mutex;
    int m_holds = 0;
    std::thread m_thread; // runs while the library keeps its own application object
    QCoreApplication *m_application = nullptr;
    char m_name[9] = "pushchat";
    char *m_argv[2] = { m_name, nullptr };
    int m_argc = 1;
};

Keeper &keeper()
{
    static Keeper instance;
    return instance;
}

} // namespace

CapiEventLoop::CapiEventLoop()
{
    keeper().hold();
}

CapiEventLoop::~CapiEventLoop()
{
    keeper().release();
}

bool CapiEventLoop::running()
{
    return keeper().running();
}
