// Holds the receptionist's lock on a data folder until killed, as a running application
// does: lock_holder FOLDER PROGRAM. Prints "verrou pris" once it holds it.
#include "records/InstanceLock.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3)
        return 2;
    auto lock = vemira::InstanceLock::acquire(vemira::DataFolder(arguments[1]), arguments[2]);
    QTextStream out(stdout);
    if (!lock) {
        out << lock.error().message() << Qt::endl;
        return 1;
    }
    out << "verrou pris" << Qt::endl;
    return QCoreApplication::exec();
}
