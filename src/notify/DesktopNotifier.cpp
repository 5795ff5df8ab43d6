#include "notify/DesktopNotifier.h"

#include "notify/AfterCallMail.h"

namespace vemira {

CallNotice callNotice(const CallRecord& record)
{
    const CallHeadline headline = callHeadline(record);
    CallNotice notice;
    notice.callId = record.id;
    notice.title = afterCallSubject(headline);
    notice.body = headline.summary.trimmed().isEmpty()
                      ? QStringLiteral("Nouvel appel enregistré. Cliquez pour l’ouvrir.")
                      : headline.summary;
    notice.urgent = headline.urgency == QLatin1String("Urgent");
    return notice;
}

} // namespace vemira
