#ifndef QTTESTAPP_H
#define QTTESTAPP_H

// The Qt application object a test needs for event loops (QCoreApplication)
// or windows (QApplication), with the arguments it keeps a reference to.
template <class Application>
struct QtTestApp {
    int argc = 1;
    char name[5] = "test";
    char *argv[2] = {name, nullptr};
    Application app{argc, argv};
};

#endif // QTTESTAPP_H
