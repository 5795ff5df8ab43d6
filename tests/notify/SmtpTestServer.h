#pragma once

// The loopback mail server of the tests (smtp_server.py, aiosmtpd) as a child process.
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

namespace vemira::test {

class SmtpTestServer {
public:
    struct Options {
        QString user;
        QString password;
        bool tls = false;   // self-signed certificate, STARTTLS required
        bool smtps = false; // TLS from the first byte
        int port = 0;       // 0 = any free port

        // What most tests use: STARTTLS and a login.
        static Options withLogin(const QString& user, const QString& password)
        {
            Options options;
            options.user = user;
            options.password = password;
            options.tls = true;
            return options;
        }
    };

    explicit SmtpTestServer(const Options& options) { start(options); }
    SmtpTestServer() { start(Options()); }
    ~SmtpTestServer()
    {
        m_process.kill();
        m_process.waitForFinished(5000);
    }

    bool started() const { return m_port > 0; }
    QString url(const QString& scheme = QStringLiteral("smtp")) const
    {
        return scheme + QStringLiteral("://127.0.0.1:") + QString::number(m_port);
    }
    // The certificate the tests trust (with Options::tls or smtps).
    QString certificate() const { return m_dir.filePath(QStringLiteral("tls/cert.pem")); }

    // The n-th message received (1-based), decoded by the server; empty after the timeout.
    QJsonObject mail(int n, int timeoutMs = 15000) const
    {
        const QString path = m_dir.filePath(QStringLiteral("mail-%1.json").arg(n));
        if (!QTest::qWaitFor([&] { return QFile::exists(path); }, timeoutMs))
            return {};
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QJsonDocument::fromJson(file.readAll()).object();
    }
    int received() const
    {
        return static_cast<int>(
            QDir(m_dir.path()).entryList({QStringLiteral("mail-*.json")}, QDir::Files).size());
    }

private:
    void start(const Options& options)
    {
        QStringList args{QStringLiteral(VEMIRA_SMTP_SERVER_SCRIPT), QStringLiteral("--out"),
                         m_dir.path()};
        if (!options.user.isEmpty())
            args << QStringLiteral("--user") << options.user << QStringLiteral("--password")
                 << options.password;
        if (options.tls || options.smtps)
            args << QStringLiteral("--tls") << m_dir.filePath(QStringLiteral("tls"));
        if (options.smtps)
            args << QStringLiteral("--smtps");
        if (options.port > 0)
            args << QStringLiteral("--port") << QString::number(options.port);
        m_process.start(QStringLiteral(VEMIRA_TEST_PYTHON), args);
        QByteArray banner;
        (void)QTest::qWaitFor(
            [&] {
                banner += m_process.readAllStandardOutput();
                return banner.contains('\n') || m_process.state() == QProcess::NotRunning;
            },
            20000);
        if (banner.startsWith("READY "))
            m_port = banner.mid(6).trimmed().toInt();
    }

    QTemporaryDir m_dir;
    QProcess m_process;
    int m_port = 0;
};

// A loopback port where nothing listens (bound, then released at once).
inline int freeLoopbackPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost, 0);
    return server.serverPort();
}

} // namespace vemira::test
