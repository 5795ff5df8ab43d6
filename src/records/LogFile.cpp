#include "records/LogFile.h"

#include "records/PrivateFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

namespace vemira {

LogFile::LogFile(QString folder, qint64 maxBytes, int keptFiles)
    : m_folder(std::move(folder)), m_maxBytes(maxBytes), m_keptFiles(keptFiles)
{}

QString LogFile::standardFolder()
{
    // Tests and scripted runs keep their log with the rest of their data.
    const QString data = qEnvironmentVariable("VEMIRA_DATA_DIR");
    if (!data.isEmpty())
        return data;
#ifdef Q_OS_MACOS
    return QDir::homePath() + QStringLiteral("/Library/Logs/Brelian");
#else
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    // A relative XDG folder is to be ignored, like an unset one.
    if (state.isEmpty() || QDir::isRelativePath(state))
        state = QDir::homePath() + QStringLiteral("/.local/state");
    return state + QStringLiteral("/Brelian");
#endif
}

QString LogFile::path() const
{
    return m_folder + QStringLiteral("/vemira.log");
}

QString LogFile::olderPath(int rank) const
{
    return path() + u'.' + QString::number(rank);
}

QString LogFile::masked(QString line)
{
    // Provider keys ("sk-…", "sk-proj-…") and bearer tokens that an error message may quote.
    static const QRegularExpression key(QStringLiteral("\\b(sk-[A-Za-z0-9_-]{3})[A-Za-z0-9_-]+"));
    static const QRegularExpression bearer(QStringLiteral("(Bearer\\s+)\\S+"),
                                           QRegularExpression::CaseInsensitiveOption);
    line.replace(key, QStringLiteral("\\1…"));
    line.replace(bearer, QStringLiteral("\\1…"));
    line.replace(u'\n', u' ');
    line.replace(u'\r', u' ');
    return line;
}

void LogFile::rotate()
{
    QFile::remove(olderPath(m_keptFiles));
    for (int rank = m_keptFiles - 1; rank >= 1; --rank)
        QFile::rename(olderPath(rank), olderPath(rank + 1));
    if (m_keptFiles > 0)
        QFile::rename(path(), olderPath(1));
    else
        QFile::remove(path());
}

Status LogFile::append(const QString& line)
{
    if (Status failed = PrivateFiles::ensureFolder(m_folder))
        return failed;
    const QByteArray bytes = masked(line).toUtf8() + '\n';
    if (QFileInfo(path()).size() + bytes.size() > m_maxBytes)
        rotate();
    QFile file(path());
    const bool created = !file.exists();
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append) || file.write(bytes) != bytes.size()) {
        return AppError(QStringLiteral("Le journal « ") + path() +
                        QStringLiteral(" » n’a pas pu être écrit : ") + file.errorString() + u'.');
    }
    file.close();
    if (created)
        return PrivateFiles::restrict(path());
    return std::nullopt;
}

QStringList LogFile::lastLines(int count) const
{
    QStringList lines;
    for (int rank = 0; rank <= m_keptFiles && lines.size() < count; ++rank) {
        QFile file(rank == 0 ? path() : olderPath(rank));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        QStringList fileLines = QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
        while (!fileLines.isEmpty() && lines.size() < count)
            lines.prepend(fileLines.takeLast());
    }
    return lines;
}

} // namespace vemira
