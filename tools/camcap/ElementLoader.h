#pragma once
// Loads an element plug-in exactly as the host does: QPluginLoader, metadata check, the
// plug-in's single instance, and a cast through the contract's interface id.

#include <QPluginLoader>
#include <QString>

class IMediaElement;

class ElementLoader {
public:
    // The plug-in beside the tool in the build tree.
    static QString defaultPluginPath();

    explicit ElementLoader(const QString& path);
    // Null with error() set when the file is missing, not a plug-in, or not an element.
    IMediaElement* load();
    QString error() const { return m_error; }
    QString interfaceId() const;
    QString className() const;

private:
    QString m_path;
    QPluginLoader m_loader;
    QString m_error;
};
