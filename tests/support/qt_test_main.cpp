#include <gtest/gtest.h>

#include <QCoreApplication>

// The main of every test that needs Qt's application object (event loop, timers,
// sockets, processes); tests without one use GoogleTest's own main.
int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
