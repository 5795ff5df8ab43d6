// A tiny softphone window for the accessibility tests: it rings (with --ringing), shows
// the caller's number and a "Répondre" button; once answered it offers "Raccrocher", and
// once hung up it shows nothing but its idle text. It prints each state on stdout.
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTextStream>
#include <QVBoxLayout>
#include <QWidget>

namespace {

class RingingPhone : public QWidget {
public:
    explicit RingingPhone(bool ringing)
    {
        setWindowTitle(QStringLiteral("Softphone"));
        m_layout = new QVBoxLayout(this);
        if (ringing)
            ring();
        else
            idle();
    }

private:
    void clear()
    {
        while (QLayoutItem* item = m_layout->takeAt(0)) {
            delete item->widget();
            delete item;
        }
    }

    void report(const char* state) { QTextStream(stdout) << state << Qt::endl; }

    void idle()
    {
        clear();
        m_layout->addWidget(new QLabel(QStringLiteral("Aucun appel"), this));
        report("idle");
    }

    void ring()
    {
        clear();
        m_layout->addWidget(new QLabel(QStringLiteral("Appel entrant"), this));
        m_layout->addWidget(new QLabel(QStringLiteral("+33 6 12 34 56 78"), this));
        auto* answer = new QPushButton(QStringLiteral("Répondre"), this);
        auto* decline = new QPushButton(QStringLiteral("Refuser"), this);
        m_layout->addWidget(answer);
        m_layout->addWidget(decline);
        connect(
            answer, &QPushButton::clicked, this, [this] { talk(); }, Qt::QueuedConnection);
        connect(
            decline, &QPushButton::clicked, this, [this] { idle(); }, Qt::QueuedConnection);
        report("ringing");
    }

    void talk()
    {
        clear();
        m_layout->addWidget(new QLabel(QStringLiteral("En communication"), this));
        auto* hangUp = new QPushButton(QStringLiteral("Raccrocher"), this);
        m_layout->addWidget(hangUp);
        connect(
            hangUp, &QPushButton::clicked, this, [this] { idle(); }, Qt::QueuedConnection);
        report("talking");
    }

    QVBoxLayout* m_layout;
};

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vemira Ringing Phone Test"));
    RingingPhone phone(app.arguments().contains(QStringLiteral("--ringing")));
    phone.resize(320, 240);
    phone.show();
    return app.exec();
}
