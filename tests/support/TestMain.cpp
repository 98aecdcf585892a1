// The test main shared by every test executable: owns the QCoreApplication
// that the client, its timers and its notifiers need, and a temporary
// directory of its own, then runs GoogleTest.

#include "PrivateTemporaryDirectory.h"

#include <gtest/gtest.h>

#include <QCoreApplication>

#include <log4cplus/initializer.h>

int main(int argc, char** argv)
{
    const trel::test::PrivateTemporaryDirectory temporary("trel-test");
    log4cplus::Initializer logging;
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
