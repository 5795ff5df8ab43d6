// Hostile server traffic into the realtime client: raw frames, generated JSON events and
// client operations interleaved. Nothing may crash, and no callback may carry a value the
// frame did not validly hold.
#include "ai/RealtimeClient.h"
#include "ai/WireBase64.h"
#include "core/Clock.h"
#include "records/ModelCatalogue.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <cmath>
#include <cstdlib>
#include <cstring>

using namespace vemira;

namespace {

[[noreturn]] void broken(const char* what)
{
    fprintf(stderr, "fuzz_ai: %s\n", what);
    abort();
}

// Reads the fuzzer's bytes as choices.
class Choices {
public:
    Choices(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool empty() const { return m_pos >= m_size; }
    uint8_t byte() { return empty() ? 0 : m_data[m_pos++]; }
    QByteArray bytes(size_t max)
    {
        const size_t n = std::min<size_t>(byte() % (max + 1), m_size - std::min(m_pos, m_size));
        QByteArray out(reinterpret_cast<const char*>(m_data + m_pos), qsizetype(n));
        m_pos += n;
        return out;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

const char* const types[] = {"session.updated",
                             "response.created",
                             "response.done",
                             "response.output_audio.delta",
                             "response.output_audio_transcript.done",
                             "conversation.item.input_audio_transcription.completed",
                             "conversation.item.input_audio_transcription.failed",
                             "input_audio_buffer.speech_started",
                             "error",
                             "session.created",
                             ""};
const char* const keys[] = {"type",  "session",      "instructions",  "response", "id",
                            "usage", "input_tokens", "output_tokens", "delta",    "transcript",
                            "error", "code",         "message"};

QJsonValue value(Choices& in, int depth);

QJsonObject object(Choices& in, int depth)
{
    QJsonObject result;
    const int fields = in.byte() % 5;
    for (int i = 0; i < fields; ++i) {
        const QString key = QString::fromLatin1(keys[in.byte() % std::size(keys)]);
        if (key == QLatin1String("type") && in.byte() % 2)
            result.insert(key, QString::fromLatin1(types[in.byte() % std::size(types)]));
        else
            result.insert(key, value(in, depth + 1));
    }
    return result;
}

QJsonValue value(Choices& in, int depth)
{
    switch (in.byte() % 9) {
    case 0:
        return QJsonValue::Null;
    case 1:
        return bool(in.byte() % 2);
    case 2:
        return double(int8_t(in.byte())) * 1e5 + in.byte();
    case 3:
        return double(in.byte()) / 7.0;
    case 4:
        return QString::fromUtf8(in.bytes(24));
    case 5:
        return QString::fromLatin1(in.bytes(48).toBase64());
    case 6:
        return QJsonArray{value(in, depth + 1)};
    case 7:
        return QString::fromLatin1(types[in.byte() % std::size(types)]);
    default:
        return depth < 4 ? QJsonValue(object(in, depth)) : QJsonValue(1'000'000);
    }
}

struct Oracle {
    QJsonObject frame; // the event being handled; empty for raw bytes that did not parse
    bool parsed = false;
    int ready = 0;

    QString field(const char* key) const { return frame.value(QLatin1String(key)).toString(); }
    QString type() const { return field("type"); }
};

void watch(RealtimeClient& client, Oracle& oracle)
{
    client.onReady = [&] {
        if (++oracle.ready > 1)
            broken("onReady twice in one session");
    };
    client.onAudio = [&](const QByteArray& pcm) {
        const QJsonValue delta = oracle.frame.value(QLatin1String("delta"));
        if (!oracle.parsed || oracle.type() != QLatin1String("response.output_audio.delta") ||
            !delta.isString() || pcm.isEmpty())
            broken("audio without a delta");
        const QByteArray text = delta.toString().toLatin1();
        if (text.size() % 4 != 0 || QByteArray::fromBase64(text) != pcm || text.contains('\n') ||
            text.contains(' '))
            broken("audio from an invalid delta");
    };
    client.onTranscript = [&](const QString& speaker, const QString& text) {
        const QJsonValue transcript = oracle.frame.value(QLatin1String("transcript"));
        const bool ai = speaker == QLatin1String("Vemira") &&
                        oracle.type() == QLatin1String("response.output_audio_transcript.done");
        const bool caller =
            speaker == QLatin1String("Interlocuteur") &&
            oracle.type() == QLatin1String("conversation.item.input_audio_transcription.completed");
        const bool inaudible =
            speaker == QLatin1String("Interlocuteur") &&
            oracle.type() == QLatin1String("conversation.item.input_audio_transcription.failed");
        if (oracle.parsed && inaudible && text == QStringLiteral("[inaudible]"))
            return;
        // An AI line the caller interrupted carries the cut mark.
        const bool same = transcript.toString() == text ||
                          (ai && transcript.toString() + QStringLiteral("…") == text);
        if (!oracle.parsed || !(ai || caller) || !transcript.isString() || !same)
            broken("transcript not taken from the event");
    };
    client.onUsage = [&](const ConversationUsage& usage) {
        const RealtimeModelInfo* info = ModelCatalogue::find(usage.model);
        const bool priced = info && info->priced();
        if (usage.inputTokens < 0 || usage.outputTokens < 0 || usage.pendingResponses < 0 ||
            priced != usage.estimatedUSD.has_value() ||
            (usage.estimatedUSD &&
             !(std::isfinite(*usage.estimatedUSD) && *usage.estimatedUSD >= 0)))
            broken("implausible usage snapshot");
    };
    const auto failedResponse = [&oracle] {
        return oracle.parsed && oracle.type() == QLatin1String("response.done") &&
               oracle.frame.value(QLatin1String("response"))
                       .toObject()
                       .value(QLatin1String("status")) == QLatin1String("failed");
    };
    client.onNotice = [failedResponse](const QString& line) {
        if (!failedResponse() || !line.startsWith(QStringLiteral("Réponse de l’IA en échec (")))
            broken("notice without a failed response");
    };
    client.onError = [&oracle, failedResponse](const QString& message) {
        if (failedResponse() && message.startsWith(QStringLiteral("Crédit OpenAI épuisé"))) {
            return;
        } else if (oracle.parsed && oracle.type() == QLatin1String("error")) {
            const QJsonValue code =
                oracle.frame.value(QLatin1String("error")).toObject().value(QLatin1String("code"));
            const QString expected = code.isString() ? code.toString() : QStringLiteral("erreur");
            if (message != QStringLiteral("L’IA signale une erreur (") + expected +
                               QStringLiteral("). Vérifiez votre configuration."))
                broken("error event reported with another code");
        } else if (message.isEmpty()) {
            broken("empty error message");
        }
    };
}

void connectClient(RealtimeClient& client, Oracle& oracle, Choices& in)
{
    oracle.ready = 0;
    const QString model =
        in.byte() % 2 ? QStringLiteral("gpt-realtime") : QString::fromUtf8(in.bytes(8));
    client.connect(QStringLiteral("sk-fuzz"), model, QStringLiteral("marin"),
                   QStringLiteral("Consignes"));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // No socket is ever opened: the address is refused before any connection.
    qputenv("VEMIRA_REALTIME_URL", "ws://192.0.2.1:9");
    qputenv("QT_LOGGING_RULES", "*.warning=false");
    static QCoreApplication app(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static ManualClock clock;
    Choices in(data, size);
    RealtimeClient client(clock);
    Oracle oracle;
    watch(client, oracle);
    connectClient(client, oracle, in);

    for (int step = 0; step < 64 && !in.empty(); ++step) {
        oracle.frame = QJsonObject();
        oracle.parsed = false;
        switch (in.byte() % 8) {
        case 0: { // raw bytes, as a text or binary frame would bring them
            const QByteArray raw = in.bytes(255);
            const bool binary = raw.size() % 2;
            const QString text = QString::fromUtf8(raw); // what Qt makes of a text frame
            const QJsonDocument document = QJsonDocument::fromJson(binary ? raw : text.toUtf8());
            oracle.parsed = document.isObject();
            oracle.frame = document.object();
            // The audio shortcut must agree with the JSON reading whenever it decides.
            const auto scan = realtime::scanAudioDelta(text);
            if (scan.kind != realtime::AudioDeltaScan::NotRecognised) {
                const QJsonObject event = QJsonDocument::fromJson(text.toUtf8()).object();
                const QJsonValue delta = event.value(QLatin1String("delta"));
                const auto decoded =
                    delta.isString() ? realtime::decodeBase64(delta.toString()) : std::nullopt;
                if (event.value(QLatin1String("type")) !=
                        QLatin1String("response.output_audio.delta") ||
                    !delta.isString() || !decoded || *decoded != scan.pcm)
                    broken("audio shortcut disagrees with the JSON reading");
            }
            if (binary)
                client.receiveFrame(raw);
            else
                client.receiveText(text);
            break;
        }
        case 1:
        case 2:
        case 3: { // a generated event, through the parser and straight to the dispatcher
            oracle.frame = object(in, 0);
            if (in.byte() % 3 == 0)
                oracle.frame.insert(QStringLiteral("type"),
                                    QString::fromLatin1(types[in.byte() % std::size(types)]));
            oracle.parsed = true;
            if (in.byte() % 2)
                client.receiveText(QString::fromUtf8(QJsonDocument(oracle.frame).toJson()));
            else
                client.handle(oracle.frame.value(QLatin1String("type")).toString(), oracle.frame);
            break;
        }
        case 4:
            client.append(in.bytes(255).repeated(in.byte() % 200));
            break;
        case 5:
            client.updateInstructions(QString::fromUtf8(in.bytes(32)));
            client.greet();
            break;
        case 6:
            if (in.byte() % 4 == 0)
                client.close();
            else
                connectClient(client, oracle, in);
            break;
        default:
            QCoreApplication::processEvents();
            clock.advance(in.byte());
            break;
        }
        if (client.waitingFrames() > RealtimeClient::maxWaitingFrames)
            broken("outgoing queue above its bound");
    }
    client.close();
    QCoreApplication::processEvents();
    return 0;
}
