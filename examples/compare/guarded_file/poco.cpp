// Changes a file in one step that other processes wait for; it is replaced whole or not at all.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileStream.h>
#include <Poco/NamedMutex.h>
#include <Poco/StreamCopier.h>

void flush(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1 || fsync(fd) != 0) throw Poco::FileException(path);
    close(fd);
}

int main() {
    Poco::NamedMutex mutex("pz_compare");
    Poco::NamedMutex::ScopedLock lock(mutex);
    std::string bytes;
    if (Poco::File("settings").exists()) {
        Poco::FileInputStream old("settings");
        Poco::StreamCopier::copyToString(old, bytes);
    }
    bytes += "volume=7\n";
    Poco::FileOutputStream settings("settings.new");
    settings << bytes;
    settings.close();
    flush("settings.new");
    Poco::File("settings.new").renameTo("settings");
    flush(".");
    std::printf("%s", bytes.c_str());
}
