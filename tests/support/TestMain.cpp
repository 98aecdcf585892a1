// The test main shared by every test executable: owns the QCoreApplication
// that the client, its timers and its notifiers need, then runs GoogleTest.

#include <gtest/gtest.h>

#include <QCoreApplication>

#include <log4cplus/initializer.h>

int main(int argc, char** argv)
{
    log4cplus::Initializer logging;
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
