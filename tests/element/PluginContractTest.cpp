// The plug-in as the host sees it: loaded by QPluginLoader and used only through the
// contract, never by linking the element class.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QJsonObject>
#include <QMetaMethod>
#include <QMetaObject>
#include <QPluginLoader>
#include <QPointer>

#include "Formats.h"
#include "IMediaElement.h"
#include "Logger.h"
#include "MediaPin.h"

namespace {

QObject* loadInstance()
{
    QPluginLoader loader(QStringLiteral(PLUGIN_PATH));
    return loader.instance();
}

IMediaElement* element()
{
    QObject* instance = loadInstance();
    return qobject_cast<IMediaElement*>(instance);
}

TEST(PluginContract, MetadataNamesInterfaceAndClass)
{
    QPluginLoader loader(QStringLiteral(PLUGIN_PATH));
    const QJsonObject meta = loader.metaData();
    EXPECT_EQ(meta.value(QStringLiteral("IID")).toString(), QStringLiteral("org.IMediaElement/1.0"));
    EXPECT_EQ(meta.value(QStringLiteral("className")).toString(), QStringLiteral("V4LCameraCapturePlugin"));
    EXPECT_TRUE(meta.value(QStringLiteral("MetaData")).toObject().isEmpty());
}

TEST(PluginContract, InstanceCastsAndAnswersToBothNames)
{
    QObject* instance = loadInstance();
    ASSERT_NE(instance, nullptr);
    EXPECT_NE(qobject_cast<IMediaElement*>(instance), nullptr);
    EXPECT_EQ(instance->qt_metacast("org.IMediaElement/1.0"), static_cast<void*>(instance));
    EXPECT_EQ(instance->qt_metacast("V4LCameraCapturePlugin"), static_cast<void*>(instance));
    EXPECT_STREQ(instance->metaObject()->className(), "V4LCameraCapturePlugin");
    EXPECT_EQ(instance->parent(), nullptr);
}

TEST(PluginContract, IdentityAndPins)
{
    IMediaElement* e = element();
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getName(), QStringLiteral("V4LCameraCapturePlugin"));
    EXPECT_EQ(e->getType(), 2);
    EXPECT_TRUE(e->getInputPinList().isEmpty());
    const QList<MediaOutputPin*> pins = e->getOutputPinList();
    ASSERT_EQ(pins.size(), 1);
    EXPECT_EQ(e->getOutputPinList().first(), pins.first());  // same pin every time
    const MediaOutputPin* pin = pins.first();
    EXPECT_EQ(pin->majorType(), 0);
    EXPECT_EQ(pin->minorType(), 1);
    EXPECT_EQ(pin->codecType(), 6);
    EXPECT_EQ(pin->rawType(), -1);
    EXPECT_EQ(pin->owner(), e);
    EXPECT_EQ(e->activeInputPin(nullptr, MediaFormat()), 0);
}

TEST(PluginContract, InitializeStartAndStopWithoutCamera)
{
    IMediaElement* e = element();
    LogCapture log;
    EXPECT_EQ(e->initialize(), 0);
    EXPECT_EQ(e->getState(), 1);
    EXPECT_EQ(e->start(), 0);
    EXPECT_EQ(e->start(), 0);  // a running auxiliary thread is left alone
    EXPECT_EQ(e->stop(), 0);
    EXPECT_EQ(e->pause(), 0);
    EXPECT_EQ(e->getState(), 1);
    EXPECT_TRUE(log.lines().empty());
}

struct PinCase {
    int codec;
    int expected;
};

class ActiveOutPin : public testing::TestWithParam<PinCase> {};

TEST_P(ActiveOutPin, AcceptsOnlyCodedFormatsTheCameraCanPassThrough)
{
    IMediaElement* e = element();
    LogCapture log;
    const MediaFormat format = videoFormat(GetParam().codec, 640, 480);
    EXPECT_EQ(e->activeOutPin(nullptr, format), GetParam().expected);
    EXPECT_EQ(e->activeOutPin(e->getOutputPinList().first(), format), GetParam().expected);
    EXPECT_EQ(log.count("activeOutPin failed -1", 0), GetParam().expected == 0 ? 0 : 2);
}

INSTANTIATE_TEST_SUITE_P(CodecCodes, ActiveOutPin,
                         testing::Values(PinCase{6, 0}, PinCase{7, 0}, PinCase{9, 0}, PinCase{11, -1},
                                         PinCase{12, -1}, PinCase{-1, -1}, PinCase{0, -1}, PinCase{8, -1},
                                         PinCase{100, -1}));

TEST(PluginContract, UnknownAttributesAreRefused)
{
    IMediaElement* e = element();
    LogCapture log;
    EXPECT_EQ(e->setAttribute(QStringLiteral("NET.STATE"), true), -1);
    EXPECT_TRUE(log.contains("setAttribute failed -1", 0));
    EXPECT_EQ(e->setAttribute(QStringLiteral("net.state"), true), 0);
    EXPECT_TRUE(log.contains("setAttribute net.state 1", 2));
    const QVariant v = e->getAttribute(ATTR_PLUGIN_OUTPUTFORMAT);
    EXPECT_FALSE(v.isValid());
    EXPECT_TRUE(v.isNull());
}

TEST(PluginContract, OneInstanceUntilTheHostDeletesIt)
{
    QPointer<QObject> first = loadInstance();
    ASSERT_FALSE(first.isNull());
    EXPECT_EQ(loadInstance(), first.data());
    delete first.data();
    QObject* second = loadInstance();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(qobject_cast<IMediaElement*>(second), nullptr);
    EXPECT_EQ(loadInstance(), second);
}

TEST(PluginContractDeathTest, SigQuitLogsStopsAndExitsWith255)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            Logger::setThreshold(0);
            QObject* instance = loadInstance();
            QMetaObject::invokeMethod(instance, "sigQuit");
            QMetaObject::invokeMethod(instance, "sigQuit");  // the first run already ends it
            QCoreApplication::exec();
            std::exit(0);
        },
        testing::ExitedWithCode(255), "V4LCameraCapturePlugin sigQuit");
}

// The defaults an element inherits from the contract.
class MinimalElement : public IMediaElement {
public:
    QString getName() override { return {}; }
    int getType() override { return 0; }
    int getState() override { return 0; }
    int initialize() override { return 0; }
    int start() override { return 0; }
    int play() override { return 0; }
    int pause() override { return 0; }
    int stop() override { return 0; }
    QList<MediaInputPin*> getInputPinList() override { return {}; }
    QList<MediaOutputPin*> getOutputPinList() override { return {}; }
    int activeInputPin(MediaInputPin*, MediaFormat) override { return 0; }
    int activeOutPin(MediaOutputPin*, MediaFormat) override { return 0; }
};

TEST(ContractDefaults, AttributesAndControlDefaults)
{
    MinimalElement e;
    for (const QString& key : {ATTR_CAM_FORMATLIST, ATTR_CAM_SETFORMAT, QStringLiteral("anything")}) {
        EXPECT_FALSE(e.getAttribute(key).isValid());
        EXPECT_TRUE(e.getAttribute(key).isNull());
        EXPECT_EQ(e.setAttribute(key, QVariant(1)), 0);
    }
    EXPECT_EQ(e.onControl(0, nullptr), -1);
    EXPECT_EQ(e.onControl(42, &e), -1);
    e.onGetFrame(nullptr);
    e.onDestroy();
}

TEST(ContractDefaults, MediaEventReachesReceiversWithBothArguments)
{
    MinimalElement e;
    QString key;
    QVariant value;
    QObject::connect(&e, &IMediaElement::mediaEvent, [&](QString k, QVariant v) {
        key = k;
        value = v;
    });
    emit e.mediaEvent(QStringLiteral("event.camera.gotframe"), QVariant());
    EXPECT_EQ(key, QStringLiteral("event.camera.gotframe"));
    EXPECT_FALSE(value.isValid());
    EXPECT_EQ(IMediaElement::staticMetaObject.method(IMediaElement::staticMetaObject.methodOffset()).name(),
              QByteArray("mediaEvent"));
}

TEST(ContractKeys, ConstantsHoldTheHostsTexts)
{
    const std::pair<QString, const char*> keys[] = {
        {ATTR_CAM_FORMATLIST, "/attr/camera/formatlist"},   {ATTR_CAM_SETFORMAT, "/attr/camera/setformat"},
        {ATTR_SCREEN_GETFORMAT, "/attr/screen/getformat"},  {ATTR_PLUGIN_INPUTFORMAT, "/attr/plugin/inputformat"},
        {ATTR_PLUGIN_OUTPUTFORMAT, "/attr/plugin/outputformat"}, {EVENT_CAM_STEAMON, "/event/camera/steamon"},
        {EVENT_CAM_STEAMOFF, "/event/camera/steamoff"},     {EVENT_CAM_CONNECTED, "/event/camera/connected"},
        {EVENT_CAM_DISCONNECTED, "/event/camera/disconnected"}};
    for (const auto& [constant, text] : keys)
        EXPECT_EQ(constant, QString::fromLatin1(text));
}

} // namespace
