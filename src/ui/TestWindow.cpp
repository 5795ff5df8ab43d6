#include "ui/TestWindow.h"

#include "app/AppModel.h"
#include "ui/Bind.h"
#include "ui/Theme.h"
#include "ui/UiTexts.h"
#include "ui/Widgets.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vemira::ui {

TestWindow::TestWindow(AppModel* model, QWidget* parent) : QDialog(parent), m_model(model)
{
    setWindowTitle(QStringLiteral("Essayer Vemira"));
    setAccessibleName(windowTitle());
    auto* layout = new QVBoxLayout(this);

    m_state = makeLabel(QString(), this);
    m_state->setAccessibleName(QStringLiteral("État"));
    Theme::styleSecondary(m_state);
    layout->addWidget(m_state);

    const PlatformWording& wording = PlatformWording::current();
    auto* mac = new Card(texts::talkOnComputer(), this);
    mac->body()->addWidget(makeLabel(wording.talkOnComputerBody, mac));
    m_route = makeLabel(QString(), mac);
    m_route->setAccessibleName(QStringLiteral("Micro et sortie de l’essai"));
    Theme::styleSecondary(m_route);
    mac->body()->addWidget(m_route);
    auto* macRow = new QHBoxLayout;
    m_talk = makeButton(texts::talkOnComputer(), mac);
    m_end = makeButton(QStringLiteral("&Terminer la conversation"), mac);
    macRow->addWidget(m_talk);
    macRow->addWidget(m_end);
    macRow->addStretch(1);
    mac->body()->addLayout(macRow);
    layout->addWidget(mac);

    auto* outgoing = new Card(texts::outgoingTest(), this);
    outgoing->body()->addWidget(makeLabel(wording.outgoingBody, outgoing));
    auto* numberRow = new QHBoxLayout;
    auto* numberLabel = new QLabel(QStringLiteral("&Numéro à appeler :"), outgoing);
    m_number = new QLineEdit(outgoing);
    m_number->setPlaceholderText(QStringLiteral("06 12 34 56 78"));
    m_number->setInputMethodHints(Qt::ImhDialableCharactersOnly);
    nameAfter(m_number, numberLabel);
    numberRow->addWidget(numberLabel);
    numberRow->addWidget(m_number, 1);
    outgoing->body()->addLayout(numberRow);
    auto* outRow = new QHBoxLayout;
    m_dial = makeButton(QStringLiteral("1. &Appeler ce numéro"), outgoing);
    m_connect = makeButton(texts::connectAI(), outgoing);
    m_openPhone = makeButton(wording.openPhone, outgoing);
    outRow->addWidget(m_dial);
    outRow->addWidget(m_connect);
    outRow->addStretch(1);
    outRow->addWidget(m_openPhone);
    outgoing->body()->addLayout(outRow);
    m_outgoingStatus = makeLabel(QString(), outgoing);
    m_outgoingStatus->setAccessibleName(QStringLiteral("État de l’appel sortant"));
    outgoing->body()->addWidget(m_outgoingStatus);
    layout->addWidget(outgoing);

    auto* close = makeButton(QStringLiteral("Fermer"), this);
    auto* closeRow = new QHBoxLayout;
    closeRow->addStretch(1);
    closeRow->addWidget(close);
    layout->addLayout(closeRow);

    connect(m_talk, &QPushButton::clicked, this, [this] {
        m_model->setShowMacTest(true);
        m_model->startTest();
    });
    connect(m_end, &QPushButton::clicked, m_model, &AppModel::finish);
    connect(m_number, &QLineEdit::textEdited, this,
            [this](const QString& number) { m_model->setOutgoingNumber(number); });
    connect(m_number, &QLineEdit::returnPressed, m_dial, &QPushButton::click);
    connect(m_dial, &QPushButton::clicked, this, [this] {
        m_model->setShowOutgoingTest(true);
        m_model->setOutgoingNumber(m_number->text());
        m_model->dialTestNumber();
    });
    connect(m_connect, &QPushButton::clicked, m_model, &AppModel::takeCurrentCall);
    connect(m_openPhone, &QPushButton::clicked, m_model, &AppModel::openPhone);
    connect(close, &QPushButton::clicked, this, &QDialog::accept);

    bind(m_model, &AppModel::macTestRouteChanged, this,
         [this] { setTextIfChanged(m_route, m_model->macTestRoute()); });
    bind(m_model, &AppModel::outgoingNumberChanged, this, [this] {
        if (m_number->text() != m_model->outgoingNumber())
            m_number->setText(m_model->outgoingNumber());
    });
    bind(m_model, &AppModel::outgoingStatusChanged, this,
         [this] { setTextIfChanged(m_outgoingStatus, m_model->outgoingStatus()); });
    bind(m_model, &AppModel::busyChanged, this, &TestWindow::refresh);
    connect(m_model, &AppModel::armedChanged, this, &TestWindow::refresh);
    connect(m_model, &AppModel::statusChanged, this, &TestWindow::refresh);
    connect(m_model, &AppModel::errorChanged, this, &TestWindow::refresh);
    resize(560, sizeHint().height());
}

// Neither test starts while the switchboard is on standby or a conversation runs; say why.
void TestWindow::refresh()
{
    const bool busy = m_model->busy();
    const bool armed = m_model->armed();
    m_talk->setEnabled(!busy && !armed);
    m_dial->setEnabled(!busy && !armed);
    m_connect->setEnabled(!busy);
    m_end->setVisible(busy && !m_model->phoneSession());
    QString state;
    if (armed && !busy)
        state = QStringLiteral("Mettez le standard en pause pour faire un essai.");
    else if (busy)
        state = m_model->status();
    if (!m_model->error().isEmpty())
        state =
            state.isEmpty() ? m_model->error() : state + QStringLiteral(" — ") + m_model->error();
    setTextIfChanged(m_state, state);
    m_state->setVisible(!state.isEmpty());
}

} // namespace vemira::ui
