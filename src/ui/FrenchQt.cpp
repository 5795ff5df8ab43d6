#include "ui/FrenchQt.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

namespace vemira::ui {

bool useFrenchQt(QCoreApplication& app)
{
    const QLocale french(QLocale::French, QLocale::France);
    QLocale::setDefault(french);
    auto* translator = new QTranslator(&app);
    const QStringList folders = {
        QLibraryInfo::path(QLibraryInfo::TranslationsPath),
        // A bundle made by macdeployqt keeps them beside its other resources.
        QCoreApplication::applicationDirPath() + QStringLiteral("/../Resources/translations"),
    };
    for (const QString& folder : folders) {
        if (translator->load(french, QStringLiteral("qtbase"), QStringLiteral("_"), folder)) {
            QCoreApplication::installTranslator(translator);
            return true;
        }
    }
    delete translator;
    return false;
}

} // namespace vemira::ui
