#include "platform/linux/audio/PulseVirtualDevices.h"

#include "audio/SoundDevice.h"
#include "platform/linux/audio/PulseConnection.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QList>
#include <QSaveFile>
#include <QStandardPaths>
#include <pulse/error.h>
#include <pulse/introspect.h>

namespace vemira {

std::unique_ptr<VirtualAudioDevices> createPlatformVirtualAudioDevices()
{
    return std::make_unique<pulse::PulseVirtualDevices>();
}

namespace pulse {

namespace {
constexpr int connectTimeoutMs = 3000;
constexpr int requestTimeoutMs = 3000;
const char* const dropInName = "vemira-brelian";

struct Device {
    QString uid;
    QString description;
};

QList<Device> devices()
{
    return {{BrelianDevices::callUID(), BrelianDevices::callName},
            {BrelianDevices::voiceUID(), BrelianDevices::voiceName}};
}

struct SinkFacts {
    QByteArray name;
    std::uint32_t module = PA_INVALID_INDEX;
    pa_sample_spec spec{};
};

struct Survey {
    PulseConnection* connection = nullptr;
    QList<SinkFacts> sinks;
    QByteArray defaultSink;
    QByteArray defaultSource;
    QString serverName;
    bool failed = false;
};

void onSink(pa_context*, const pa_sink_info* info, int eol, void* data)
{
    auto* survey = static_cast<Survey*>(data);
    if (eol < 0)
        survey->failed = true;
    if (!eol && info)
        survey->sinks.append({info->name, info->owner_module, info->sample_spec});
    if (eol)
        survey->connection->wake();
}

void onServer(pa_context*, const pa_server_info* info, void* data)
{
    auto* survey = static_cast<Survey*>(data);
    if (info) {
        survey->defaultSink = info->default_sink_name;
        survey->defaultSource = info->default_source_name;
        survey->serverName = QString::fromUtf8(info->server_name);
    } else {
        survey->failed = true;
    }
    survey->connection->wake();
}

// Sinks, defaults and the server's name. Caller holds the lock.
bool survey(PulseConnection& server, Survey& out)
{
    out.connection = &server;
    const bool sinks = server.finish(pa_context_get_sink_info_list(server.context(), &onSink, &out),
                                     requestTimeoutMs);
    const bool info = server.finish(pa_context_get_server_info(server.context(), &onServer, &out),
                                    requestTimeoutMs);
    return sinks && info && !out.failed;
}

const SinkFacts* find(const Survey& survey, const QString& uid)
{
    for (const SinkFacts& sink : survey.sinks) {
        if (sink.name == uid.toUtf8())
            return &sink;
    }
    return nullptr;
}

// The server acknowledges a module's unloading before the sink is gone (PulseAudio defers it) and,
// on pipewire-pulse, its loading before the sink is listed: until the list agrees, a create right
// after a remove would skip a device on its way out, and a check would miss a new one. Each survey
// is a round trip, which lets the server finish the deferred work. Caller holds the lock.
void awaitListed(PulseConnection& server, bool listed)
{
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < requestTimeoutMs) {
        Survey now;
        if (!survey(server, now))
            return;
        bool settled = true;
        for (const Device& device : devices())
            settled = settled && (find(now, device.uid) != nullptr) == listed;
        if (settled)
            return;
    }
}

struct Outcome {
    PulseConnection* connection = nullptr;
    bool success = false;
    std::uint32_t index = PA_INVALID_INDEX;
};

void onSuccess(pa_context*, int success, void* data)
{
    auto* outcome = static_cast<Outcome*>(data);
    outcome->success = success != 0;
    outcome->connection->wake();
}

void onIndex(pa_context*, std::uint32_t index, void* data)
{
    auto* outcome = static_cast<Outcome*>(data);
    outcome->index = index;
    outcome->success = index != PA_INVALID_INDEX;
    outcome->connection->wake();
}

bool setDefault(PulseConnection& server, bool source, const QByteArray& name)
{
    Outcome outcome{&server};
    pa_operation* operation =
        source
            ? pa_context_set_default_source(server.context(), name.constData(), &onSuccess,
                                            &outcome)
            : pa_context_set_default_sink(server.context(), name.constData(), &onSuccess, &outcome);
    return server.finish(operation, requestTimeoutMs) && outcome.success;
}

// Loading or unloading a sink may move the defaults by itself: the user's choice stands.
void keepDefaults(PulseConnection& server, const Survey& before)
{
    Survey after;
    if (!survey(server, after))
        return;
    // Setting a default that was just removed fails, and the server's own choice stays.
    if (!before.defaultSink.isEmpty() && after.defaultSink != before.defaultSink)
        setDefault(server, false, before.defaultSink);
    if (!before.defaultSource.isEmpty() && after.defaultSource != before.defaultSource)
        setDefault(server, true, before.defaultSource);
}

AppError unreachable(int status)
{
    return AppError::withStatus(QStringLiteral("Le serveur audio est injoignable"), status);
}

bool writeFile(const QString& path, const QByteArray& content)
{
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return false;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(content);
    return file.commit();
}

AppError notWritten(const QString& path)
{
    return AppError(QStringLiteral("Impossible d’écrire le fichier de démarrage du son : %1.")
                        .arg(QDir::toNativeSeparators(path)));
}
} // namespace

PulseVirtualDevices::PulseVirtualDevices(QString configHome) : m_configHome(std::move(configHome))
{
    if (m_configHome.isEmpty())
        m_configHome = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
}

PulseVirtualDevices::~PulseVirtualDevices() = default;

PulseConnection* PulseVirtualDevices::connection(int* status)
{
    if (m_connection) {
        PulseConnection::Lock lock(*m_connection);
        if (m_connection->isReady())
            return m_connection.get();
    }
    m_connection.reset();
    PulseConnection::Failure failure{-PA_ERR_CONNECTIONREFUSED};
    m_connection = PulseConnection::connect("Vemira", connectTimeoutMs, &failure);
    if (!m_connection)
        *status = failure.status;
    return m_connection.get();
}

QByteArray PulseVirtualDevices::moduleArguments(const QString& uid, const QString& description)
{
    // Quoted twice: once for the module argument parser, once for the property list parser.
    return QStringLiteral("sink_name=%1 rate=%2 channels=%3 "
                          "sink_properties='device.description=\"%4\"'")
        .arg(uid)
        .arg(kRate)
        .arg(kChannels)
        .arg(description)
        .toUtf8();
}

Status PulseVirtualDevices::check()
{
    int status = -PA_ERR_UNKNOWN;
    PulseConnection* server = connection(&status);
    if (!server)
        return unreachable(status);
    PulseConnection::Lock lock(*server);
    Survey now;
    if (!survey(*server, now))
        return unreachable(server->lastStatus());
    for (const Device& device : devices()) {
        const SinkFacts* sink = find(now, device.uid);
        if (!sink)
            return AppError(QStringLiteral("L’appareil audio virtuel « %1 » n’existe pas encore.")
                                .arg(device.description));
        if (sink->spec.rate != kRate || sink->spec.channels != kChannels)
            return AppError(QStringLiteral("L’appareil audio virtuel « %1 » n’est pas en 48 kHz "
                                           "stéréo : supprimez-le puis créez-le à nouveau.")
                                .arg(device.description));
    }
    return std::nullopt;
}

Status PulseVirtualDevices::create()
{
    int status = -PA_ERR_UNKNOWN;
    PulseConnection* server = connection(&status);
    if (!server)
        return unreachable(status);
    PulseConnection::Lock lock(*server);
    Survey before;
    if (!survey(*server, before))
        return unreachable(server->lastStatus());
    Status failure;
    for (const Device& device : devices()) {
        if (find(before, device.uid))
            continue;
        Outcome outcome{server};
        const QByteArray arguments = moduleArguments(device.uid, device.description);
        server->finish(pa_context_load_module(server->context(), "module-null-sink",
                                              arguments.constData(), &onIndex, &outcome),
                       requestTimeoutMs);
        if (!outcome.success) {
            failure = AppError::withStatus(
                QStringLiteral("L’appareil audio virtuel « %1 » n’a pas pu être créé")
                    .arg(device.description),
                server->lastStatus());
            break;
        }
    }
    if (!failure)
        awaitListed(*server, true);
    keepDefaults(*server, before);
    return failure;
}

Status PulseVirtualDevices::remove()
{
    int status = -PA_ERR_UNKNOWN;
    PulseConnection* server = connection(&status);
    if (!server)
        return unreachable(status);
    PulseConnection::Lock lock(*server);
    Survey before;
    if (!survey(*server, before))
        return unreachable(server->lastStatus());
    Status failure;
    for (const Device& device : devices()) {
        const SinkFacts* sink = find(before, device.uid);
        if (!sink || sink->module == PA_INVALID_INDEX)
            continue;
        // By module index: unloading by module name would take every null sink of the user.
        Outcome outcome{server};
        if (!server->finish(
                pa_context_unload_module(server->context(), sink->module, &onSuccess, &outcome),
                requestTimeoutMs) ||
            !outcome.success) {
            failure = AppError::withStatus(
                QStringLiteral("L’appareil audio virtuel « %1 » n’a pas pu être supprimé")
                    .arg(device.description),
                server->lastStatus());
        }
    }
    if (!failure)
        awaitListed(*server, false);
    keepDefaults(*server, before);
    return failure;
}

QString PulseVirtualDevices::pulseDropIn() const
{
    return QDir(m_configHome)
        .filePath(QStringLiteral("pulse/default.pa.d/") + QLatin1String(dropInName) +
                  QStringLiteral(".pa"));
}

QString PulseVirtualDevices::pipewireDropIn() const
{
    return QDir(m_configHome)
        .filePath(QStringLiteral("pipewire/pipewire-pulse.conf.d/") + QLatin1String(dropInName) +
                  QStringLiteral(".conf"));
}

bool PulseVirtualDevices::persistent() const
{
    return QFile::exists(pulseDropIn()) || QFile::exists(pipewireDropIn());
}

Result<QString> PulseVirtualDevices::persist()
{
    int status = -PA_ERR_UNKNOWN;
    PulseConnection* server = connection(&status);
    if (!server)
        return unreachable(status);
    Survey now;
    {
        PulseConnection::Lock lock(*server);
        if (!survey(*server, now))
            return unreachable(server->lastStatus());
    }
    const QByteArray header = "# Vemira's virtual call devices, written at the user's request.\n";
    if (now.serverName.contains(QLatin1String("PipeWire"), Qt::CaseInsensitive)) {
        QByteArray content = header + "pulse.cmd = [\n";
        for (const Device& device : devices()) {
            QByteArray arguments =
                "module-null-sink " + moduleArguments(device.uid, device.description);
            arguments.replace('\\', "\\\\").replace('"', "\\\"");
            content += "    { cmd = \"load-module\" args = \"" + arguments +
                       "\" flags = [ \"nofail\" ] }\n";
        }
        content += "]\n";
        const QString path = pipewireDropIn();
        if (!writeFile(path, content))
            return notWritten(path);
        return path;
    }

    // PulseAudio reads the user's default.pa instead of the system's when there is one: ours
    // includes the system's and then the drop-in folder.
    QByteArray content = header;
    for (const Device& device : devices())
        content += ".nofail\nload-module module-null-sink " +
                   moduleArguments(device.uid, device.description) + "\n.fail\n";
    const QString path = pulseDropIn();
    if (!writeFile(path, content))
        return notWritten(path);
    const QString folder = QFileInfo(path).absolutePath();
    const QString userScript = QDir(m_configHome).filePath(QStringLiteral("pulse/default.pa"));
    QByteArray script;
    QFile existing(userScript);
    if (existing.open(QIODevice::ReadOnly))
        script = existing.readAll();
    else
        script = ".include /etc/pulse/default.pa\n";
    if (!script.contains(folder.toUtf8())) {
        if (!script.isEmpty() && !script.endsWith('\n'))
            script += '\n';
        script += ".ifexists " + folder.toUtf8() + "\n.include " + folder.toUtf8() + "\n.endif\n";
        if (!writeFile(userScript, script))
            return notWritten(userScript);
    }
    return path;
}

Status PulseVirtualDevices::forget()
{
    for (const QString& path : {pulseDropIn(), pipewireDropIn()}) {
        if (QFile::exists(path) && !QFile::remove(path))
            return AppError(
                QStringLiteral("Impossible de supprimer le fichier de démarrage du son : %1.")
                    .arg(QDir::toNativeSeparators(path)));
    }
    return std::nullopt;
}

} // namespace pulse

} // namespace vemira
