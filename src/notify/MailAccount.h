#pragma once

#include "core/AppError.h"
#include "notify/SmtpTransport.h"
#include "records/APIKeyStore.h"
#include "records/Settings.h"

#include <QString>
#include <QUrl>

namespace vemira {

class DataFolder;

// How the connection to the owner's mail server is protected. Mail leaves the computer only
// encrypted; plain SMTP is accepted for a server on this computer (a local relay).
enum class MailSecurity {
    ImplicitTls,       // smtps://
    StartTlsRequired,  // smtp:// to another computer: no STARTTLS, no mail
    StartTlsIfOffered, // smtp:// to a loopback address
};

// The server address as the owner typed it, checked: smtps:// or smtp://, a host, no
// credentials inside. Default ports: 465 for smtps, 587 for smtp.
Result<QUrl> parseMailServer(const QString& text);
MailSecurity mailSecurity(const QUrl& server);
bool isLoopbackHost(const QString& host);

// A bare address (local@domain), nothing that could break out of a mail header.
bool isMailAddress(const QString& address);

// Every field of the settings, with the French sentence for the first one that is wrong.
Status checkMailSettings(const Settings::Mail& mail);

// Everything to reach the server for these settings, the password read from its file;
// the message itself is left to the caller.
Result<SmtpRequest> mailRequest(const Settings::Mail& mail, const LocalKeyStore& passwords);

// The mail server's password, kept like the provider key: Credentials/smtp.password, 0600.
LocalKeyStore mailPasswordStore(const DataFolder& folder);

} // namespace vemira
