#pragma once
// The contract every pipeline element implements. The host drives elements only through
// these virtuals (slot order matters: it calls them through the virtual table) and listens
// to them through mediaEvent.

#include <QList>
#include <QObject>
#include <QString>
#include <QVariant>

#include "MediaFormat.h"

class MediaInputPin;
class MediaOutputPin;

// Attribute and event keys. Each translation unit holds its own copies, as the host's do.
static const QString ATTR_CAM_FORMATLIST = QStringLiteral("/attr/camera/formatlist");
static const QString ATTR_CAM_SETFORMAT = QStringLiteral("/attr/camera/setformat");
static const QString ATTR_SCREEN_GETFORMAT = QStringLiteral("/attr/screen/getformat");
static const QString ATTR_PLUGIN_INPUTFORMAT = QStringLiteral("/attr/plugin/inputformat");
static const QString ATTR_PLUGIN_OUTPUTFORMAT = QStringLiteral("/attr/plugin/outputformat");
static const QString EVENT_CAM_STEAMON = QStringLiteral("/event/camera/steamon");
static const QString EVENT_CAM_STEAMOFF = QStringLiteral("/event/camera/steamoff");
static const QString EVENT_CAM_CONNECTED = QStringLiteral("/event/camera/connected");
static const QString EVENT_CAM_DISCONNECTED = QStringLiteral("/event/camera/disconnected");

class IMediaElement : public QObject {
    Q_OBJECT
public:
    explicit IMediaElement(QObject* parent = nullptr) : QObject(parent) {}

    virtual QString getName() = 0;
    virtual int getType() = 0;
    virtual int getState() = 0;
    virtual int initialize() = 0;
    virtual int start() = 0;
    virtual int play() = 0;
    virtual int pause() = 0;
    virtual int stop() = 0;
    virtual QList<MediaInputPin*> getInputPinList() = 0;
    virtual QList<MediaOutputPin*> getOutputPinList() = 0;
    virtual int activeInputPin(MediaInputPin* pin, MediaFormat format) = 0;
    virtual int activeOutPin(MediaOutputPin* pin, MediaFormat format) = 0;
    virtual void onGetFrame(MediaInputPin* pin) { Q_UNUSED(pin) }
    virtual int setAttribute(QString key, QVariant value)
    {
        Q_UNUSED(key) Q_UNUSED(value)
        return 0;
    }
    virtual QVariant getAttribute(QString key)
    {
        Q_UNUSED(key)
        return QVariant();
    }
    virtual void onDestroy() {}
    virtual int onControl(int command, void* argument)
    {
        Q_UNUSED(command) Q_UNUSED(argument)
        return -1;
    }

signals:
    void mediaEvent(QString key, QVariant value);
};

#define IMediaElement_iid "org.IMediaElement/1.0"
Q_DECLARE_INTERFACE(IMediaElement, IMediaElement_iid)
