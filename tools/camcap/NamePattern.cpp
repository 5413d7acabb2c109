#include "NamePattern.h"

#include <QByteArray>

namespace {

// Where the extension begins in a path: its last '.', unless that starts the file name.
int extensionAt(const QString& path)
{
    const int dot = path.lastIndexOf(QLatin1Char('.'));
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    return dot > slash + 1 ? dot : path.size();
}

// What a strftime field can expand to, as a regular expression.
QString fieldExpression(QChar conversion)
{
    switch (conversion.toLatin1()) {
    case 'Y': case 'G': return QStringLiteral("\\d{4}");
    case 's': case 'i': return QStringLiteral("\\d+");
    case 'C': case 'y': case 'g': case 'm': case 'd': case 'e': case 'H': case 'I': case 'k': case 'l':
    case 'M': case 'S': case 'j': case 'U': case 'V': case 'W': case 'u': case 'w':
        return QStringLiteral("[ \\d]{1,3}");
    default: return QStringLiteral("[^/]+?");
    }
}

} // namespace

NamePattern::NamePattern(const QString& pattern, bool numbered)
{
    std::vector<size_t> days;  // %d fields: the index or the day, decided below
    bool timeFields = false, indexField = false;
    auto addText = [this](const QString& text) {
        if (!m_tokens.empty() && m_tokens.back().kind == Token::Text)
            m_tokens.back().text += text;
        else
            m_tokens.push_back({Token::Text, text});
    };
    for (int i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != QLatin1Char('%') || i + 1 >= pattern.size()) {
            addText(pattern[i]);
            continue;
        }
        if (pattern[i + 1] == QLatin1Char('%')) {
            addText(QStringLiteral("%"));
            ++i;
            continue;
        }
        // %[flags][width][E|O]conversion
        int j = i + 1;
        while (j < pattern.size() && QStringLiteral("-_0^#").contains(pattern[j]))
            ++j;
        const int widthAt = j;
        while (j < pattern.size() && pattern[j].isDigit())
            ++j;
        if (j < pattern.size() && (pattern[j] == QLatin1Char('E') || pattern[j] == QLatin1Char('O')))
            ++j;
        if (j >= pattern.size()) {
            addText(pattern.mid(i));
            break;
        }
        Token t{Token::Time, pattern.mid(i, j - i + 1)};
        t.width = pattern.mid(widthAt, j - widthAt).toInt();
        t.zeros = pattern.mid(i + 1, widthAt - i - 1).contains(QLatin1Char('0'));
        const QChar conversion = pattern[j];
        if (conversion == QLatin1Char('i')) {
            t.kind = Token::Index;
            indexField = true;
        } else if (conversion == QLatin1Char('d')) {
            days.push_back(m_tokens.size());
        } else {
            timeFields = true;
        }
        m_tokens.push_back(t);
        i = j;
    }
    if (!days.empty() && !timeFields && !indexField) {
        for (size_t at : days)
            m_tokens[at].kind = Token::Index;
        indexField = true;
    }
    if (numbered && !indexField && !timeFields && days.empty()) {
        const QString text = m_tokens.empty() ? QString() : m_tokens.front().text;
        const int ext = extensionAt(text);
        m_tokens = {{Token::Text, text.left(ext) + QLatin1Char('-')}, {Token::Index, QString(), 3, true},
                    {Token::Text, text.mid(ext)}};
    }

    const int slash = pattern.lastIndexOf(QLatin1Char('/'));
    m_bare = slash < 0;
    const QString directory = slash < 0 ? QStringLiteral(".") : slash == 0 ? QStringLiteral("/") : pattern.left(slash);
    if (!QString(directory).remove(QStringLiteral("%%")).contains(QLatin1Char('%')))
        m_directory = QString(directory).replace(QStringLiteral("%%"), QStringLiteral("%"));

    QString expression;
    for (const Token& t : m_tokens)
        expression += t.kind == Token::Text ? QRegularExpression::escape(t.text)
                                            : fieldExpression(t.kind == Token::Index ? QLatin1Char('i') : t.text.back());
    m_fileName.setPattern(QStringLiteral("^") + expression + QStringLiteral("$"));
}

QString NamePattern::name(int index, std::time_t when) const
{
    QString format;
    for (const Token& t : m_tokens) {
        if (t.kind == Token::Text)
            format += QString(t.text).replace(QLatin1Char('%'), QStringLiteral("%%"));
        else if (t.kind == Token::Time)
            format += t.text;
        else
            format += QStringLiteral("%1").arg(index, t.width, 10, t.zeros ? QLatin1Char('0') : QLatin1Char(' '));
    }
    std::tm local{};
    localtime_r(&when, &local);
    QByteArray text(4096, '\0');
    const size_t n = std::strftime(text.data(), size_t(text.size()), format.toLocal8Bit().constData(), &local);
    return QString::fromLocal8Bit(text.constData(), int(n));
}

bool NamePattern::matches(const QString& path) const
{
    if (m_fileName.match(path).hasMatch())
        return true;
    // "name-N.ext": a taken name's successor.
    static const QRegularExpression suffix(QStringLiteral("-\\d+$"));
    const int ext = extensionAt(path);
    const QString stem = path.left(ext);
    const QRegularExpressionMatch m = suffix.match(stem);
    return m.hasMatch() && m_fileName.match(stem.left(m.capturedStart()) + path.mid(ext)).hasMatch();
}

QString NamePattern::pathOf(const QString& entry) const
{
    if (m_bare)
        return entry;
    return m_directory.endsWith(QLatin1Char('/')) ? m_directory + entry : m_directory + QLatin1Char('/') + entry;
}

QString NamePattern::withSuffix(const QString& name, int n)
{
    const int ext = extensionAt(name);
    return name.left(ext) + QLatin1Char('-') + QString::number(n) + name.mid(ext);
}
