// The plug-in as the host sees it: loaded by QPluginLoader and used only through the
// contract, never by linking the element class.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QJsonObject>
#include <QMetaObject>
#include <QPluginLoader>
#include <QPointer>

#include "IMediaElement.h"
#include "Logger.h"
#include "MediaPin.h"

namespace {

QObject* loadInstance()
{
    QPluginLoader loader(QStringLiteral(PLUGIN_PATH));
    return loader.instance();
}

IMediaElement* element() { return qobject_cast<IMediaElement*>(loadInstance()); }

TEST(PluginContract, MetadataInstanceIdentityAndPins)
{
    QPluginLoader loader(QStringLiteral(PLUGIN_PATH));
    const QJsonObject meta = loader.metaData();
    EXPECT_EQ(meta.value(QStringLiteral("IID")).toString(), QStringLiteral("org.IMediaElement/1.0"));
    EXPECT_EQ(meta.value(QStringLiteral("className")).toString(), QStringLiteral("V4LCameraCapturePlugin"));
    QObject* instance = loadInstance();
    ASSERT_NE(instance, nullptr);
    EXPECT_EQ(instance->qt_metacast("V4LCameraCapturePlugin"), static_cast<void*>(instance));
    EXPECT_EQ(instance->parent(), nullptr);
    IMediaElement* e = qobject_cast<IMediaElement*>(instance);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getName(), QStringLiteral("V4LCameraCapturePlugin"));
    EXPECT_EQ(e->getType(), 2);
    EXPECT_TRUE(e->getInputPinList().isEmpty());
    const QList<MediaOutputPin*> pins = e->getOutputPinList();
    ASSERT_EQ(pins.size(), 1);
    EXPECT_EQ(e->getOutputPinList().first(), pins.first());  // same pin every time
    EXPECT_EQ(pins.first()->codecType(), CODEC_TYPE_H264);
    EXPECT_EQ(pins.first()->owner(), e);
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

} // namespace
