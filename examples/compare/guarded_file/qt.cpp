// Changes a file in one step that other processes wait for; it is replaced whole or not at all.
#include <cstdio>

#include <QFile>
#include <QLockFile>
#include <QSaveFile>

int main() {
    QLockFile lock("settings.lock");
    if (!lock.lock()) return 1;
    QByteArray bytes;
    QFile old("settings");
    if (old.open(QIODevice::ReadOnly)) bytes = old.readAll();
    bytes += "volume=7\n";
    QSaveFile settings("settings");
    if (!settings.open(QIODevice::WriteOnly)) return 1;
    settings.write(bytes);
    if (!settings.commit()) return 1;
    std::printf("%s", bytes.constData());
}
