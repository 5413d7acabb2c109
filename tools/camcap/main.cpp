// camcap: loads the camera element plug-in and drives it as the host does.

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTimer>
#include <cstdio>

#include "ElementLoader.h"
#include "IMediaElement.h"
#include "Logger.h"
#include "MediaPin.h"

namespace {

enum ExitCode { EXIT_OK = 0, EXIT_USAGE = 2, EXIT_NO_PLUGIN = 3 };

void printIdentity(IMediaElement* element, const ElementLoader& loader)
{
    std::printf("plug-in:   %s\n", qPrintable(loader.className()));
    std::printf("interface: %s\n", qPrintable(loader.interfaceId()));
    std::printf("name:      %s\n", qPrintable(element->getName()));
    std::printf("type:      %d\n", element->getType());
    std::printf("state:     %d\n", element->getState());
    std::printf("input pins:  %d\n", element->getInputPinList().size());
    const QList<MediaOutputPin*> outputs = element->getOutputPinList();
    std::printf("output pins: %d\n", outputs.size());
    for (int i = 0; i < outputs.size(); ++i) {
        const MediaOutputPin* pin = outputs[i];
        std::printf("  [%d] major %d minor %d codec %d raw %d\n", i, pin->majorType(), pin->minorType(),
                    pin->codecType(), pin->rawType());
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("camcap"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Camera element host tool"));
    parser.addHelpOption();
    QCommandLineOption pluginOption(QStringLiteral("plugin"), QStringLiteral("Plug-in file to load."),
                                    QStringLiteral("path"), ElementLoader::defaultPluginPath());
    QCommandLineOption verboseOption(QStringList{QStringLiteral("v"), QStringLiteral("verbose")},
                                     QStringLiteral("Log element INFO and DEBUG lines."));
    parser.addOption(pluginOption);
    parser.addOption(verboseOption);
    parser.process(app);

    Logger::setThreshold(parser.isSet(verboseOption) ? 4 : 1);

    ElementLoader loader(parser.value(pluginOption));
    IMediaElement* element = loader.load();
    if (!element) {
        std::fprintf(stderr, "camcap: %s\n", qPrintable(loader.error()));
        return EXIT_NO_PLUGIN;
    }

    int status = EXIT_OK;
    QTimer::singleShot(0, [&] {
        element->initialize();
        element->start();
        printIdentity(element, loader);
        element->stop();
        app.exit(status);
    });
    status = app.exec();
    delete element;
    return status;
}
