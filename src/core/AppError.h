#pragma once

#include <QString>
#include <optional>
#include <utility>
#include <variant>

namespace vemira {

// The one error type: a complete French sentence, shown to the user unchanged.
class AppError {
public:
    explicit AppError(QString message) : m_message(std::move(message)) {}

    // "Sentence start (" + signed status + ")." — for operating-system status codes.
    static AppError withStatus(const QString& sentenceStart, long long status)
    {
        return AppError(sentenceStart + QStringLiteral(" (") + QString::number(status) +
                        QStringLiteral(")."));
    }

    const QString& message() const { return m_message; }
    bool operator==(const AppError&) const = default;

private:
    QString m_message;
};

// A value or the error that prevented it. We stay on C++20, so no std::expected.
template <typename T> class Result {
public:
    Result(T value) : m_state(std::move(value)) {}        // NOLINT(google-explicit-constructor)
    Result(AppError error) : m_state(std::move(error)) {} // NOLINT(google-explicit-constructor)

    bool ok() const { return std::holds_alternative<T>(m_state); }
    explicit operator bool() const { return ok(); }
    const T& value() const& { return std::get<T>(m_state); }
    T& value() & { return std::get<T>(m_state); }
    T&& value() && { return std::get<T>(std::move(m_state)); }
    const AppError& error() const { return std::get<AppError>(m_state); }

private:
    std::variant<T, AppError> m_state;
};

// For operations that return nothing but may fail.
using Status = std::optional<AppError>;

} // namespace vemira
