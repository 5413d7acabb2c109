#include "Retention.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <utility>
#include <vector>

namespace {

bool regularFile(const QString& path, struct stat* st)
{
    return ::lstat(QFile::encodeName(path).constData(), st) == 0 && S_ISREG(st->st_mode);
}

QString directoryOf(const NamePattern& names, const QStringList& made)
{
    if (!names.fixedDirectory().isEmpty())
        return names.fixedDirectory();
    return made.isEmpty() ? QString() : QFileInfo(made.last()).path();
}

} // namespace

Retention::Retention(const NamePattern& names, long long keepFreeBytes, int maxFiles)
    : m_names(names), m_keepFree(keepFreeBytes), m_maxFiles(maxFiles)
{
}

QStringList Retention::candidates(const QStringList& made, const QString& current) const
{
    QStringList directories;
    if (!m_names.fixedDirectory().isEmpty()) {
        directories << m_names.fixedDirectory();
    } else {
        for (const QString& file : made)
            if (!directories.contains(QFileInfo(file).path()))
                directories << QFileInfo(file).path();
    }
    struct stat keep {};
    const bool haveCurrent = !current.isEmpty() && regularFile(current, &keep);
    std::vector<std::pair<struct timespec, QString>> files;
    for (const QString& directory : directories) {
        for (const QString& entry : QDir(directory).entryList(QDir::Files | QDir::Hidden | QDir::System)) {
            const QString path = m_names.fixedDirectory().isEmpty() ? directory + QLatin1Char('/') + entry
                                                                    : m_names.pathOf(entry);
            struct stat st;
            if (!m_names.matches(path) || !regularFile(path, &st))
                continue;
            if (haveCurrent && st.st_dev == keep.st_dev && st.st_ino == keep.st_ino)
                continue;
            files.emplace_back(st.st_mtim, path);
        }
    }
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) {
        if (a.first.tv_sec != b.first.tv_sec)
            return a.first.tv_sec < b.first.tv_sec;
        if (a.first.tv_nsec != b.first.tv_nsec)
            return a.first.tv_nsec < b.first.tv_nsec;
        return a.second < b.second;
    });
    QStringList paths;
    for (const auto& f : files)
        paths << f.second;
    return paths;
}

bool Retention::enoughFree(const QStringList& made) const
{
    struct statvfs fs;
    const QString directory = directoryOf(m_names, made);
    if (m_keepFree <= 0 || directory.isEmpty() || ::statvfs(QFile::encodeName(directory).constData(), &fs) < 0)
        return true;
    return (long long)(fs.f_bavail) * (long long)(fs.f_frsize) >= m_keepFree;
}

QStringList Retention::beforeNewFile(const QStringList& made, const QString& current)
{
    QStringList removed;
    if (!active())
        return removed;
    QStringList files = candidates(made, current);
    auto tooMany = [&] { return m_maxFiles > 0 && files.size() + 1 > m_maxFiles; };
    while (!files.isEmpty() && (tooMany() || !enoughFree(made))) {
        const QString oldest = files.takeFirst();
        if (::unlink(QFile::encodeName(oldest).constData()) == 0)
            removed << oldest;
    }
    return removed;
}

QString Retention::removeOldest(const QStringList& made, const QString& current)
{
    if (!active())
        return {};
    for (const QString& oldest : candidates(made, current))
        if (::unlink(QFile::encodeName(oldest).constData()) == 0)
            return oldest;
    return {};
}
