#pragma once
// A recording cut into files: a new one begins at the first key frame after each interval,
// so every file starts decodable and no frame is lost or written twice.

#include <QStringList>
#include <memory>

#include "FrameSink.h"

class SegmentWriter : public FrameSink {
public:
    // `pattern` names the files: "%d" (any printf width) is the index, other "%" fields
    // are strftime's; without either "-NNN" goes before the extension.
    SegmentWriter(const QString& pattern, double seconds, const StreamInfo& info);
    // Opens the first file, so an unwritable name shows before recording.
    bool open(QString* error);
    bool write(const Frame& frame) override;
    bool finish() override;
    QStringList files() const { return m_files; }

    static QString fileName(const QString& pattern, int index);

private:
    bool next();

    QString m_pattern;
    int64_t m_intervalUs;
    StreamInfo m_info;
    std::unique_ptr<FrameSink> m_current;
    bool m_fresh = true;  // the current file has no frame yet
    int64_t m_startUs = 0;
    QStringList m_files;
};
