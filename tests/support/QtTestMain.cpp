// GoogleTest main with a QCoreApplication, which queued calls and plug-in loading need.
#include <QCoreApplication>
#include <gtest/gtest.h>

#include <cstdio>

#include "Logger.h"

namespace {
bool g_showDebug = false;

// The element writes some diagnostics to Qt's debug output; keep test output readable.
void filterQtMessages(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtDebugMsg && !g_showDebug)
        return;
    fprintf(stderr, "%s\n", qPrintable(message));
}
} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication app(argc, argv);
    g_showDebug = qEnvironmentVariableIsSet("CAMERA_TEST_LOG");
    qInstallMessageHandler(filterQtMessages);
    // Tests read log lines through LogCapture; CAMERA_TEST_LOG=N shows levels up to N.
    Logger::setThreshold(qEnvironmentVariableIsSet("CAMERA_TEST_LOG") ? qEnvironmentVariableIntValue("CAMERA_TEST_LOG") : -1);
    return RUN_ALL_TESTS();
}
