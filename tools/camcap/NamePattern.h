#pragma once
// How the files of a recording are named. A pattern is a strftime pattern, as date reads
// it, with one more field: %i (or %03i) is the file's index. %d stays strftime's day of the
// month unless it is the pattern's only field: then it is the index, as in "rec-%03d.mkv".

#include <QRegularExpression>
#include <QString>
#include <ctime>
#include <vector>

class NamePattern {
public:
    // `numbered`: files follow one another (segments), so a pattern without any field gets
    // "-000", "-001", ... before its extension.
    NamePattern(const QString& pattern, bool numbered);

    // The name of file `index`, begun at `when` (local time).
    QString name(int index, std::time_t when) const;
    // Whether a file name (without directory) is one this pattern makes, at any time and
    // index, with or without the "-N" a taken name gets.
    bool matches(const QString& fileName) const;
    // The directory the pattern's files go to, or empty when it holds a field itself.
    QString fixedDirectory() const { return m_directory; }
    // An entry of that directory as the pattern would name it.
    QString pathOf(const QString& entry) const;

    // "dir/name-N.ext" for "dir/name.ext".
    static QString withSuffix(const QString& name, int n);

private:
    struct Token {
        enum Kind { Text, Time, Index } kind;
        QString text;  // the literal, or the strftime field with its '%'
        int width = 0;
        bool zeros = false;
    };

    std::vector<Token> m_tokens;
    QString m_directory;
    bool m_bare = false;  // names without a directory
    QRegularExpression m_fileName;
};
