// Ten changes with Qt.
#include "follow.h"

#include <QCoreApplication>
#include <QSocketNotifier>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    Follower follower;
    QSocketNotifier changes(follower.node.fd(), QSocketNotifier::Read);
    QObject::connect(&changes, &QSocketNotifier::activated, [&] {
        if (!follower.take_changes())
            QCoreApplication::quit();
    });
    return QCoreApplication::exec();
}
