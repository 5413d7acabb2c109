#include "ElementLoader.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

#include "IMediaElement.h"

QString ElementLoader::defaultPluginPath()
{
    return QDir(QCoreApplication::applicationDirPath()).absoluteFilePath(QStringLiteral(CAMCAP_PLUGIN_RELPATH));
}

ElementLoader::ElementLoader(const QString& path)
    // QPluginLoader wants an explicit directory for relative paths.
    : m_path(QFileInfo(path).absoluteFilePath()), m_loader(m_path)
{
}

QString ElementLoader::interfaceId() const
{
    return m_loader.metaData().value(QStringLiteral("IID")).toString();
}

QString ElementLoader::className() const
{
    return m_loader.metaData().value(QStringLiteral("className")).toString();
}

IMediaElement* ElementLoader::load()
{
    if (!QFileInfo::exists(m_path)) {
        m_error = QStringLiteral("plug-in not found: %1").arg(m_path);
        return nullptr;
    }
    if (interfaceId() != QLatin1String(IMediaElement_iid)) {
        m_error = QStringLiteral("%1 does not implement %2 (interface id '%3')")
                      .arg(m_path, QLatin1String(IMediaElement_iid), interfaceId());
        return nullptr;
    }
    QObject* instance = m_loader.instance();
    if (!instance) {
        m_error = m_loader.errorString();
        return nullptr;
    }
    auto* element = qobject_cast<IMediaElement*>(instance);
    if (!element)
        m_error = QStringLiteral("%1 does not cast to IMediaElement").arg(m_path);
    return element;
}
