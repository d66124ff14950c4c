// Starts the library under a name, and ends it with the scope.
#include <cstdio>

#include <QCoreApplication>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    app.setApplicationName("radio");
    std::printf("%s runs\n", qPrintable(app.applicationName()));
}
