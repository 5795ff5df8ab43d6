#pragma once

#include "core/AppError.h"

#include <QByteArray>
#include <QString>
#include <atomic>

namespace vemira {

// One delivery to the owner's mail server. The password is only handed to the mail library;
// it never appears in a message of ours.
struct SmtpRequest {
    QString server; // smtps://host[:port] or smtp://host[:port], as checked by parseMailServer
    QString user;   // empty = no login
    QString password;
    QString caFile; // empty = the system's certificate authorities
    QString from;   // envelope sender and recipient, bare addresses
    QString to;
    QByteArray message; // the whole message, CRLF lines (encodeMail)
    int connectTimeoutSeconds = 15;
    int transferTimeoutSeconds = 120;
};

struct SmtpOutcome {
    Status error;           // none = the server accepted the message
    bool retryable = false; // worth another try later (server away, temporary refusal)
    QString serverReply;    // the server's last reply line, when there was one
};

// Blocking: runs the whole SMTP conversation on the calling thread (never the main one).
// `cancel`, when set, aborts a transfer under way within a fraction of a second.
SmtpOutcome sendMail(const SmtpRequest& request, const std::atomic<bool>* cancel = nullptr);

} // namespace vemira
