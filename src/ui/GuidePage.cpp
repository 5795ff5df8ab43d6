#include "ui/GuidePage.h"

#include "app/AppModel.h"
#include "records/LogFile.h"
#include "ui/UiTexts.h"
#include "ui/Widgets.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

namespace vemira::ui {

GuidePage::GuidePage(AppModel* model, QWidget* parent) : QWidget(parent)
{
    setAccessibleName(QStringLiteral("Guide"));
    auto* layout = makeScrollingPage(this);
    auto* content = layout->parentWidget();

    struct Section {
        QString title;
        QString body;
    };
    const PlatformWording& wording = PlatformWording::current();
    const QList<Section> sections = {
        {wording.guidePrepareTitle, wording.guidePrepareBody},
        {QStringLiteral("2. Essayer avant le premier appel"),
         QStringLiteral("Dans la fenêtre d’essai, « ") + texts::talkOnComputer() +
             wording.guideTryMiddle + texts::outgoingTest() +
             QStringLiteral(" » appelle un autre téléphone puis branche l’IA sur cet appel.")},
        {QStringLiteral("3. Activer le standard"), wording.guideArmBody},
        {QStringLiteral("4. Reprendre la main pendant un appel"),
         QStringLiteral("Sur l’accueil, « ") + texts::intervene() +
             QStringLiteral(" » ouvre votre micro vers l’appelant et met l’IA en silence ; "
                            "« ") +
             texts::giveBack() +
             QStringLiteral(" » la laisse reprendre. Choisissez d’abord votre micro et votre "
                            "casque dans Connexions → Intervention humaine.")},
        {QStringLiteral("5. Retrouver et classer les appels"), wording.guideRecordsBody},
    };
    for (const Section& s : sections) {
        auto* card = new Card(s.title, content);
        card->body()->addWidget(makeLabel(s.body, card));
        layout->addWidget(card);
    }
    auto* journal = new Card(QStringLiteral("Journal"), content);
    const LogFile log(LogFile::standardFolder());
    journal->body()->addWidget(makeLabel(
        QStringLiteral("Chaque événement du standard est aussi noté dans « ") + log.path() +
            QStringLiteral(" » (sans clé, mot de passe ni texte des conversations). "
                           "« vemira log » l’affiche aussi. Dernières lignes :"),
        journal));
    m_logTail = makeLabel(QString(), journal);
    m_logTail->setAccessibleName(QStringLiteral("Dernières lignes du journal"));
    m_logTail->setTextInteractionFlags(Qt::TextSelectableByMouse);
    journal->body()->addWidget(m_logTail);
    layout->addWidget(journal);
    connect(model, &AppModel::logChanged, this, [this] {
        if (isVisible())
            refreshLogTail();
    });
    auto* actions = new QHBoxLayout;
    auto* setup = makeButton(QStringLiteral("Ouvrir la configuration &guidée"), content);
    auto* test = makeButton(QStringLiteral("Ouvrir la fenêtre d’&essai"), content);
    auto* demo = makeButton(QStringLiteral("Voir un e&xemple de conversation"), content);
    actions->addWidget(setup);
    actions->addWidget(test);
    actions->addWidget(demo);
    actions->addStretch(1);
    layout->addLayout(actions);
    layout->addStretch(1);
    connect(setup, &QPushButton::clicked, this, &GuidePage::setupRequested);
    connect(test, &QPushButton::clicked, this, &GuidePage::testRequested);
    connect(demo, &QPushButton::clicked, model, &AppModel::addDemo);
}

void GuidePage::refreshLogTail()
{
    const QStringList lines = LogFile(LogFile::standardFolder()).lastLines(kLogTailLines);
    m_logTail->setText(lines.isEmpty() ? QStringLiteral("(vide pour l’instant)")
                                       : lines.join(u'\n'));
}

void GuidePage::showEvent(QShowEvent* event)
{
    refreshLogTail();
    QWidget::showEvent(event);
}

} // namespace vemira::ui
