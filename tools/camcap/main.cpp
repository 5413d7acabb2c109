// camcap: loads the camera element plug-in as the host does and records what it delivers.

#include <QCoreApplication>
#include <QStringList>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "CameraCheck.h"
#include "ElementLoader.h"
#include "IMediaElement.h"
#include "Logger.h"
#include "Options.h"
#include "Session.h"
#include "Simulation.h"

namespace {
Session* g_session = nullptr;
int g_verbosity = 1;

// The element writes some diagnostics to Qt's debug output; show them only when verbose.
void filterQtMessages(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtDebugMsg && g_verbosity < 4)
        return;
    std::fprintf(stderr, "%s\n", qPrintable(message));
}

void onProcessExit()
{
    if (g_session)
        g_session->reportUnexpectedExit();
}
} // namespace

int main(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    QString error;
    const auto options = parseOptions(arguments, &error);
    if (arguments.contains(QStringLiteral("-h")) || arguments.contains(QStringLiteral("--help"))) {
        std::fputs(qPrintable(usageText()), stdout);
        return EXIT_OK;
    }
    if (!options) {
        std::fprintf(stderr, "camcap: %s\nTry 'camcap --help' for more information.\n", qPrintable(error));
        return EXIT_USAGE;
    }
    if (options->simulate && !enterSimulation(argc, argv, options->simulateModel, &error)) {
        std::fprintf(stderr, "camcap: %s\n", qPrintable(error));
        return EXIT_USAGE;
    }

    // A reader that went away (`| head`) is a write error to finish on, not a killing signal.
    std::signal(SIGPIPE, SIG_IGN);
    QCoreApplication app(argc, argv);
    // Without -v the element's lines are held and shown with the failure they explain.
    Logger::setThreshold(options->verbosity >= 4 ? 4 : -1);
    g_verbosity = options->verbosity;
    qInstallMessageHandler(filterQtMessages);

    if (options->check)
        return CameraCheck(*options, QCoreApplication::applicationFilePath()).run();

    ElementLoader loader(options->pluginPath.isEmpty() ? ElementLoader::defaultPluginPath() : options->pluginPath);
    IMediaElement* element = loader.load();
    if (!element) {
        std::fprintf(stderr, "camcap: %s\n", qPrintable(loader.error()));
        return EXIT_NO_PLUGIN;
    }

    int code;
    {
        Session session(element, *options);
        g_session = &session;
        std::atexit(onProcessExit);
        code = session.run();
        g_session = nullptr;
        element->stop();
    }
    delete element;
    return code;
}
