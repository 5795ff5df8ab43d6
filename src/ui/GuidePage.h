#pragma once

#include <QWidget>

class QLabel;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

// A short how-to in plain French, with the actions it talks about one click away.
class GuidePage : public QWidget {
    Q_OBJECT

public:
    explicit GuidePage(AppModel* model, QWidget* parent = nullptr);

Q_SIGNALS:
    void setupRequested();
    void testRequested();

protected:
    void showEvent(QShowEvent* event) override;

private:
    void refreshLogTail();
    static constexpr int kLogTailLines = 8;
    QLabel* m_logTail = nullptr;
};

} // namespace vemira::ui
