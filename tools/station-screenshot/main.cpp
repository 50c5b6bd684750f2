// station-screenshot: saves what an X display shows as a PNG file, so that a
// person can look at a station's overlay.
//
// Usage: station-screenshot :N file.png
#include "XDisplayProbe.h"

#include <QCoreApplication>
#include <QImage>
#include <QRect>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3) {
        std::fprintf(stderr, "usage: station-screenshot :N file.png\n");
        return 2;
    }
    const XDisplayProbe display(arguments.at(1));
    if (!display.isConnected()) {
        std::fprintf(stderr, "station-screenshot: cannot connect to %s\n",
                     qPrintable(arguments.at(1)));
        return 1;
    }
    const QRect screen = display.geometry(display.getRoot());
    const QImage shot = display.screenshot(QRect(QPoint(0, 0), screen.size()));
    if (shot.isNull() || !shot.save(arguments.at(2), "PNG")) {
        std::fprintf(stderr, "station-screenshot: cannot save %s\n", qPrintable(arguments.at(2)));
        return 1;
    }
    return 0;
}
