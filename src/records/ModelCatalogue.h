#pragma once

#include <QDate>
#include <QList>
#include <QString>
#include <optional>

namespace vemira {

// The provider's realtime models and what the cost estimate needs of them, read from the one
// table realtime-models.json (compiled in). Immutable; any thread.
struct TokenPrices {
    // US dollars per million tokens; absent when not published where we looked.
    std::optional<double> input;
    std::optional<double> cachedInput;
    std::optional<double> output;
};

struct RealtimeModelInfo {
    QString name;
    QString cost; // a word on the cost level, shown in the model picker
    TokenPrices audio;
    TokenPrices text;
    std::optional<qint64> context;   // tokens
    std::optional<qint64> maxOutput; // tokens of one response
    std::optional<QDate> shutdown;   // announced by the provider
    QString successor;               // the provider's recommended replacement
    QString source;
    QDate checked;

    // The estimate can be made: audio prices, context and maximum output are all known.
    bool priced() const { return audio.input && audio.output && context && maxOutput; }
};

// What a saved model is worth on a given day.
struct ModelRetirement {
    QDate shutdown;
    QString successor;
    bool retired = false; // the date has come: the model no longer answers
    bool soon = false;    // within kWarningDays of the date
};

class ModelCatalogue {
public:
    static constexpr int kWarningDays = 30;

    static const QList<RealtimeModelInfo>& models();
    // Exact, case-sensitive name; null when the model is not in the table.
    static const RealtimeModelInfo* find(const QString& name);
    // The models offered in the picker: those with no announced shutdown.
    static QList<RealtimeModelInfo> current();

    static QString defaultModel();
    static QString transcriptionModel();
    // Charged per minute of caller audio in the estimate; at least the model's price.
    static double transcriptionProvisionPerMinute();

    // Only for a catalogue model with an announced shutdown.
    static std::optional<ModelRetirement> retirement(const QString& name, const QDate& today);
};

// "24 novembre 2026", "1er octobre 2026".
QString frenchDate(const QDate& date);

} // namespace vemira
