// GoogleTest main with a QCoreApplication, which queued calls and plug-in loading need.
#include <QCoreApplication>
#include <gtest/gtest.h>

#include "Logger.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication app(argc, argv);
    // Tests read log lines through LogCapture; CAMERA_TEST_LOG=N shows levels up to N.
    Logger::setThreshold(qEnvironmentVariableIsSet("CAMERA_TEST_LOG") ? qEnvironmentVariableIntValue("CAMERA_TEST_LOG") : -1);
    return RUN_ALL_TESTS();
}
