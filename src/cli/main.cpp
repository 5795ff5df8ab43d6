#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTextStream(stderr) << QStringLiteral("vemira : aucune commande n’est encore disponible.\n");
    return 2;
}
