#pragma once
// --keep-free and --max-files: the oldest files of the output's pattern make room for new
// ones. Only regular files whose names the pattern makes are removed, never the file being
// written and never anything else in the directory.

#include <QString>
#include <QStringList>

#include "NamePattern.h"

class Retention {
public:
    Retention(const NamePattern& names, long long keepFreeBytes, int maxFiles);
    bool active() const { return m_keepFree > 0 || m_maxFiles > 0; }

    // Before a new file: removes the oldest files until at most maxFiles - 1 remain and
    // keepFreeBytes are free. `made` are this run's files (their directories are searched
    // when the pattern's directory holds a field). Returns what it removed.
    QStringList beforeNewFile(const QStringList& made, const QString& current);
    // The disk is full: removes the oldest file other than `current`; empty when none is left.
    QString removeOldest(const QStringList& made, const QString& current);

private:
    // Files of the pattern other than `current`, oldest first.
    QStringList candidates(const QStringList& made, const QString& current) const;
    bool enoughFree(const QStringList& made) const;

    const NamePattern& m_names;
    const long long m_keepFree;
    const int m_maxFiles;
};
