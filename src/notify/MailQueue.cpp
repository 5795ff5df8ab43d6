#include "notify/MailQueue.h"

#include "records/PrivateFiles.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QUuid>
#include <cmath>

namespace vemira {

namespace {

const QString kSuffix = QStringLiteral(".mail");

QString waitText(double seconds)
{
    if (seconds < 120)
        return QStringLiteral("%1 s").arg(std::lround(seconds));
    if (seconds < 7200)
        return QStringLiteral("%1 min").arg(std::lround(seconds / 60));
    return QStringLiteral("%1 h").arg(std::lround(seconds / 3600));
}

} // namespace

struct MailQueue::Entry {
    QString label;
    QByteArray message;
    qint64 created = 0; // ms since the epoch
    int attempts = 0;
    qint64 next = 0; // ms since the epoch
    QString to;      // the recipient of this attempt (not kept: the settings decide)

    QByteArray encode() const
    {
        return QJsonDocument(QJsonObject{{QStringLiteral("label"), label},
                                         {QStringLiteral("created"), double(created)},
                                         {QStringLiteral("attempts"), attempts},
                                         {QStringLiteral("next"), double(next)},
                                         {QStringLiteral("message"),
                                          QString::fromLatin1(message.toBase64())}})
            .toJson(QJsonDocument::Compact);
    }

    static std::optional<Entry> read(const QString& path)
    {
        auto bytes = PrivateFiles::read(path);
        if (!bytes)
            return std::nullopt;
        const QJsonObject o = QJsonDocument::fromJson(bytes.value()).object();
        Entry entry;
        entry.label = o.value(QStringLiteral("label")).toString();
        entry.message =
            QByteArray::fromBase64(o.value(QStringLiteral("message")).toString().toLatin1());
        entry.created = qint64(o.value(QStringLiteral("created")).toDouble());
        entry.attempts = o.value(QStringLiteral("attempts")).toInt();
        entry.next = qint64(o.value(QStringLiteral("next")).toDouble());
        if (entry.message.isEmpty())
            return std::nullopt;
        return entry;
    }
};

QList<double> MailQueue::defaultRetryDelays()
{
    // 30 s, 2 min, 10 min, 30 min, 1 h, 2 h, 4 h, then every 8 h: some 13 attempts in three days.
    return {30.0, 120.0, 600.0, 1800.0, 3600.0, 7200.0, 14400.0, 28800.0};
}

MailQueue::MailQueue(Clock& clock, QString folder, RequestMaker makeRequest,
                     QList<double> retryDelays, Transport transport, QObject* parent)
    : QObject(parent), m_clock(clock), m_folder(std::move(folder)),
      m_makeRequest(std::move(makeRequest)), m_retryDelays(std::move(retryDelays)),
      m_transport(std::move(transport))
{
    m_pool.setMaxThreadCount(1);
}

MailQueue::~MailQueue()
{
    m_cancel.store(true);
    m_pool.waitForDone();
}

QString MailQueue::pathOf(const QString& id) const
{
    return m_folder + u'/' + id + kSuffix;
}

int MailQueue::waitingIn(const QString& folder)
{
    return int(QDir(folder).entryList({QStringLiteral("*") + kSuffix}, QDir::Files).size());
}

Status MailQueue::add(const QByteArray& message, const QString& label)
{
    Entry entry;
    entry.label = label;
    entry.message = message;
    entry.created = entry.next = m_clock.now().toMSecsSinceEpoch();
    const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    if (Status failed = PrivateFiles::ensureFolder(m_folder))
        return failed;
    if (Status failed = PrivateFiles::write(pathOf(id), entry.encode()))
        return failed;
    attempt(id);
    return std::nullopt;
}

void MailQueue::resume()
{
    const qint64 now = m_clock.now().toMSecsSinceEpoch();
    const QDir folder(m_folder);
    for (const QString& name : folder.entryList({QStringLiteral("*") + kSuffix}, QDir::Files)) {
        const QString id = name.chopped(kSuffix.size());
        if (m_timers.count(id) > 0 || m_sending.contains(id))
            continue;
        if (const auto entry = Entry::read(pathOf(id)))
            schedule(id, std::max<qint64>(0, entry->next - now) / 1000.0);
    }
}

void MailQueue::retryNow()
{
    resume();
    m_starting = true;
    QStringList ids;
    for (const auto& [id, timer] : m_timers)
        ids.append(id);
    for (const QString& id : std::as_const(ids))
        attempt(id);
    m_starting = false;
    if (m_sending.isEmpty() && onIdle)
        onIdle();
}

void MailQueue::schedule(const QString& id, double delay)
{
    m_timers[id] = m_clock.schedule(delay, this, [this, id] { attempt(id); });
}

void MailQueue::attempt(const QString& id)
{
    m_timers.erase(id);
    if (m_sending.contains(id))
        return;
    auto lock = std::make_shared<QLockFile>(pathOf(id) + QStringLiteral(".lock"));
    if (!lock->tryLock(0)) {
        // Another process is sending it: look again later, it may have failed there.
        schedule(id, m_retryDelays.value(0, 30.0));
        return;
    }
    const std::optional<Entry> entry = Entry::read(pathOf(id));
    if (!entry)
        return; // sent (or given up) by another process meanwhile
    m_sending.insert(id, lock);
    auto request = m_makeRequest();
    if (!request) {
        // E-mail switched off or its password gone: kept, in case the owner sets it up again.
        finished(id, *entry, SmtpOutcome{request.error(), true, {}});
        return;
    }
    request.value().message = entry->message;
    Entry sent = *entry;
    sent.to = request.value().to;
    // The worker gets its own copy; the destructor waits for it, so `this` outlives the hop.
    m_pool.start([this, id, entry = std::move(sent), request = std::move(request.value())] {
        const SmtpOutcome outcome = m_transport(request, &m_cancel);
        QMetaObject::invokeMethod(
            this, [this, id, entry, outcome] { finished(id, entry, outcome); },
            Qt::QueuedConnection);
    });
}

void MailQueue::finished(const QString& id, Entry entry, const SmtpOutcome& outcome)
{
    const QDateTime now = m_clock.now();
    entry.attempts += 1;
    const double waited = double(now.toMSecsSinceEpoch() - entry.created) / 1000.0;
    const QString name = QStringLiteral("E-mail ") + entry.label;
    if (!outcome.error) {
        QFile::remove(pathOf(id));
        log(name + QStringLiteral(" envoyé à ") + entry.to);
    } else if (waited >= kKeepSeconds || m_retryDelays.isEmpty()) {
        // Even a refusal (a wrong password, an address refused) is tried again: the owner may
        // put it right within the three days.
        QFile::remove(pathOf(id));
        log(name + QStringLiteral(" abandonné après %1 tentative(s) : ").arg(entry.attempts) +
            outcome.error->message());
    } else {
        const double delay =
            m_retryDelays.at(std::min<qsizetype>(entry.attempts - 1, m_retryDelays.size() - 1));
        entry.next = now.toMSecsSinceEpoch() + qint64(delay * 1000);
        // Unwritable: the mail is still tried in this run, and the old file keeps it for the next.
        (void)PrivateFiles::write(pathOf(id), entry.encode());
        schedule(id, delay);
        log(name + QStringLiteral(" non envoyé, nouvel essai dans ") + waitText(delay) +
            QStringLiteral(" : ") + outcome.error->message());
    }
    m_sending.remove(id); // unlocks
    if (m_sending.isEmpty() && !m_starting && onIdle)
        onIdle();
}

void MailQueue::log(const QString& line) const
{
    if (m_log)
        m_log(line);
}

} // namespace vemira
