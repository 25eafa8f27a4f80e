#include "tesselcli.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Qor"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    tessel::cli::TesselCli cli(out, err);
    return cli.run(app.arguments().mid(1));
}
